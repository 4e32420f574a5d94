  // ---- Node-style HTTP clients over the bridge --------------------------------------------

  function requestUrl(options) {
    if (typeof options === 'string') {
      return options;
    }
    if (!options || typeof options !== 'object') {
      return '';
    }
    const direct = options.uri || options.url || options.href;
    if (direct) {
      return urlText(direct);
    }
    let protocol = String(options.protocol || 'http:');
    if (protocol.charAt(protocol.length - 1) !== ':') {
      protocol += ':';
    }
    const host = String(options.hostname || options.host || '127.0.0.1');
    const hasPort = options.port != null && options.port !== '' && !/:\d+$/.test(host);
    let path = String(options.path || options.pathname || '/');
    if (path.charAt(0) !== '/') {
      path = '/' + path;
    }
    return protocol + '//' + host + (hasPort ? ':' + options.port : '') + path;
  }

  function requestBodyText(body, asJson) {
    if (body == null) {
      return null;
    }
    if (typeof body === 'string') {
      return body;
    }
    return asJson || isPlainObject(body) || Array.isArray(body) ? JSON.stringify(body) : String(body);
  }

  function answerParts(answer) {
    const record = isPlainObject(answer) ? answer : {};
    return {
      status: Number(record.status) || 200,
      statusText: record.statusText ? String(record.statusText) : 'OK',
      headers: isPlainObject(record.headers) ? record.headers : {},
      body: record.body == null ? '' : String(record.body),
    };
  }

  // The response of the http/https emulation: the whole body arrives as one "data" event,
  // then "end", each listener once, always after the callback has had a chance to listen.
  function emulatedNodeResponse(answer) {
    const parts = answerParts(answer);
    const waiting = { data: [], end: [] };
    let flushScheduled = false;

    function flush() {
      flushScheduled = false;
      const dataListeners = waiting.data.splice(0);
      const endListeners = waiting.end.splice(0);
      dataListeners.forEach(function (fn) {
        try {
          fn(parts.body);
        } catch (error) {
          reportLater(error);
        }
      });
      endListeners.forEach(function (fn) {
        try {
          fn();
        } catch (error) {
          reportLater(error);
        }
      });
    }

    const response = {
      statusCode: parts.status,
      statusMessage: parts.statusText,
      headers: parts.headers,
      on: function (type, fn) {
        if (typeof fn === 'function' && (type === 'data' || type === 'end')) {
          waiting[type].push(fn);
          if (!flushScheduled) {
            flushScheduled = true;
            later(flush);
          }
        }
        return response;
      },
      resume: noop,
      setEncoding: noop,
    };
    response.once = response.on;
    return response;
  }

  function emulatedNodeRequest(options, callback) {
    const settings = isPlainObject(options) ? options : {};
    const url = rewriteApiUrl(requestUrl(options));
    const method = String(settings.method || 'GET').toUpperCase();
    const headers = plainHeaders(settings.headers);
    const chunks = [];
    const listeners = {};
    let sent = false;
    let timeoutHandler = null;

    function emit(type, value) {
      (listeners[type] || []).slice().forEach(function (fn) {
        try {
          fn(value);
        } catch (error) {
          reportLater(error);
        }
      });
    }

    const request = {
      write: function (chunk) {
        if (chunk != null && typeof chunk !== 'function') {
          chunks.push(String(chunk));
        }
        return true;
      },
      end: function (chunk) {
        request.write(chunk);
        if (sent) {
          return request;
        }
        sent = true;
        nativeLog('node-http.native: ' + url);
        callNative('httpRequest', [
          { method: method, url: url, headers: headers, body: chunks.length ? chunks.join('') : null },
        ]).then(function (answer) {
          if (typeof callback !== 'function') {
            return;
          }
          try {
            callback(emulatedNodeResponse(answer));
          } catch (error) {
            reportLater(error);
          }
        }, function (error) {
          emit('error', error);
        });
        return request;
      },
      on: function (type, fn) {
        if (typeof fn === 'function') {
          (listeners[type] = listeners[type] || []).push(fn);
        }
        return request;
      },
      setTimeout: function (ms, fn) {
        if (typeof fn === 'function') {
          timeoutHandler = fn;
        }
        return request;
      },
      destroy: function () {
        const handler = timeoutHandler;
        timeoutHandler = null;
        if (handler) {
          handler();
        }
        return request;
      },
      abort: noop,
    };
    request.once = request.on;
    if (method === 'GET') {
      later(function () {
        request.end();
      });
    }
    return request;
  }

  // http.request/get accept (url[, options][, callback]) or (options[, callback]).
  function nodeRequestArguments(args, forcedMethod) {
    const list = Array.prototype.slice.call(args);
    const callback = list.find(function (arg) {
      return typeof arg === 'function';
    });
    const first = list[0];
    let options;
    if (typeof first === 'string' || (typeof URL === 'function' && first instanceof URL)) {
      options = Object.assign({}, isPlainObject(list[1]) ? list[1] : {}, { url: urlText(first) });
    } else {
      options = Object.assign({}, isPlainObject(first) ? first : {});
    }
    if (forcedMethod) {
      options.method = forcedMethod;
    }
    return { options: options, callback: callback };
  }

  function nodeHttpModule() {
    return {
      request: function () {
        const parsed = nodeRequestArguments(arguments, null);
        return emulatedNodeRequest(parsed.options, parsed.callback);
      },
      get: function () {
        const parsed = nodeRequestArguments(arguments, 'GET');
        return emulatedNodeRequest(parsed.options, parsed.callback);
      },
    };
  }

  function parsedAnswerBody(text, asJson) {
    if (!asJson || text === '') {
      return text;
    }
    try {
      return JSON.parse(text);
    } catch (_) {
      return text;
    }
  }

  // request(uri[, options], callback) in the callback style.
  function emulatedRequest(uri, options, callback) {
    const params = emulatedRequest.initParams(uri, options, callback);
    const url = rewriteApiUrl(requestUrl(params));
    const asJson = Boolean(params.json);
    const body = params.body != null ? requestBodyText(params.body, asJson)
                                     : isPlainObject(params.json) ? JSON.stringify(params.json) : null;
    const done = typeof params.callback === 'function' ? params.callback : noop;
    nativeLog('request.native: ' + url);
    callNative('httpRequest', [{
      method: String(params.method || 'GET').toUpperCase(),
      url: url,
      headers: plainHeaders(params.headers),
      body: body,
    }]).then(function (answer) {
      const parts = answerParts(answer);
      later(function () {
        done(null, { statusCode: parts.status, headers: parts.headers },
             parsedAnswerBody(parts.body, asJson));
      });
    }, function (error) {
      later(function () {
        done(error);
      });
    });
  }

  emulatedRequest.initParams = function (uri, options, callback) {
    if (typeof options === 'function') {
      callback = options;
      options = undefined;
    }
    const params = isPlainObject(options) ? Object.assign({}, options) : {};
    if (typeof uri === 'string') {
      params.uri = uri;
    } else if (isPlainObject(uri)) {
      Object.keys(uri).forEach(function (key) {
        params[key] = uri[key];
      });
    }
    if (typeof callback === 'function') {
      params.callback = callback;
    }
    return params;
  };

  function requestPromise(options) {
    const params = typeof options === 'string' ? { url: options } : Object.assign({}, options || {});
    const url = rewriteApiUrl(requestUrl(params));
    let headers = plainHeaders(params.headers);
    let body = params.body == null ? null : params.body;
    if (params.json && body != null && typeof body !== 'string') {
      body = JSON.stringify(body);
      if (headerLookup(headers, 'content-type') === null) {
        headers = Object.assign({ 'Content-Type': 'application/json' }, headers);
      }
    }
    nativeLog('request-promise.native: ' + url);
    return callNative('httpRequest', [{
      method: String(params.method || 'GET').toUpperCase(),
      url: url,
      headers: headers,
      body: body == null ? null : String(body),
    }]).then(function (answer) {
      const parts = answerParts(answer);
      const value = parsedAnswerBody(parts.body, Boolean(params.json));
      if (params.resolveWithFullResponse || params.simple === false) {
        return { statusCode: parts.status, statusMessage: parts.statusText, headers: parts.headers, body: value };
      }
      return value;
    });
  }

  function requestPromiseModule() {
    const client = function (options) {
      return requestPromise(options);
    };
    ['get', 'post', 'put', 'patch', 'delete'].forEach(function (verb) {
      client[verb] = function (options) {
        const params = typeof options === 'string' ? { url: options } : Object.assign({}, options || {});
        params.method = verb.toUpperCase();
        return requestPromise(params);
      };
    });
    client.defaults = function (defaults) {
      return function (options) {
        const params = typeof options === 'string' ? { url: options } : options || {};
        return requestPromise(Object.assign({}, defaults || {}, params));
      };
    };
    client.jar = function () {
      return {};
    };
    return client;
  }
