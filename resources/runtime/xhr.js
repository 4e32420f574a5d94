  // ---- XMLHttpRequest ----------------------------------------------------------------------

  (function installXMLHttpRequest() {
    const PageXHR = window.XMLHttpRequest;
    if (typeof PageXHR !== 'function') {
      return;
    }
    const STATES = { UNSENT: 0, OPENED: 1, HEADERS_RECEIVED: 2, LOADING: 3, DONE: 4 };
    const EVENT_TYPES = ['readystatechange', 'loadstart', 'progress', 'abort', 'error', 'load', 'timeout', 'loadend'];
    const MIRRORED = ['readyState', 'status', 'statusText', 'responseText', 'response', 'responseURL'];
    const PASSED_THROUGH = ['timeout', 'withCredentials', 'responseType'];

    function makeEvent(type, target) {
      let event;
      try {
        event = typeof window.ProgressEvent === 'function' ? new window.ProgressEvent(type) : new window.Event(type);
      } catch (_) {
        event = { type: type };
      }
      ['target', 'currentTarget', 'srcElement'].forEach(function (key) {
        try {
          Object.defineProperty(event, key, { value: target, configurable: true });
        } catch (_) {
          // Read-only on this engine; handlers still get the request as `this`.
        }
      });
      return event;
    }

    function invoke(listener, thisArg, event) {
      try {
        if (typeof listener === 'function') {
          listener.call(thisArg, event);
        } else if (listener && typeof listener.handleEvent === 'function') {
          listener.handleEvent(event);
        }
      } catch (error) {
        reportLater(error);
      }
    }

    function responseValue(text, responseType) {
      if (responseType !== 'json') {
        return text;
      }
      try {
        return JSON.parse(text);
      } catch (_) {
        return null;
      }
    }

    // A wrapper around a real request object. It decides at open() whether the request goes
    // through the bridge; anything else is the real object's business.
    function XMLHttpRequest() {
      const self = this;
      const real = new PageXHR();
      const handlers = {};
      const listeners = {};
      const state = {};
      let routed = null;
      let generation = 0;

      function resetState(readyState) {
        state.readyState = readyState;
        state.status = 0;
        state.statusText = '';
        state.responseText = '';
        state.response = '';
        state.responseURL = '';
        state.headers = {};
      }
      resetState(STATES.UNSENT);

      function dispatch(type, event) {
        invoke(handlers[type], self, event);
        (listeners[type] || []).slice().forEach(function (entry) {
          if (entry.once) {
            removeListener(type, entry.listener);
          }
          invoke(entry.listener, self, event);
        });
      }

      function fire(type) {
        dispatch(type, makeEvent(type, self));
      }

      function removeListener(type, listener) {
        const list = listeners[type];
        if (!list) {
          return;
        }
        const index = list.findIndex(function (entry) {
          return entry.listener === listener;
        });
        if (index >= 0) {
          list.splice(index, 1);
        }
      }

      EVENT_TYPES.forEach(function (type) {
        real.addEventListener(type, function (event) {
          if (!routed) {
            dispatch(type, event);
          }
        });
      });

      function define(name, get, set) {
        Object.defineProperty(self, name, { get: get, set: set, enumerable: true, configurable: true });
      }
      MIRRORED.forEach(function (name) {
        define(name, function () {
          return routed ? state[name] : real[name];
        });
      });
      define('responseXML', function () {
        return routed ? null : real.responseXML;
      });
      PASSED_THROUGH.forEach(function (name) {
        define(name, function () {
          return real[name];
        }, function (value) {
          real[name] = value;
        });
      });
      define('upload', function () {
        return real.upload;
      });
      EVENT_TYPES.forEach(function (type) {
        define('on' + type, function () {
          return handlers[type] || null;
        }, function (value) {
          handlers[type] = typeof value === 'function' ? value : null;
        });
      });
      Object.keys(STATES).forEach(function (name) {
        Object.defineProperty(self, name, { value: STATES[name], enumerable: true });
      });

      self.open = function open(method, url) {
        generation += 1;
        const rest = Array.prototype.slice.call(arguments, 2);
        const raw = urlText(url);
        const target = typeof raw === 'string' ? rewriteApiUrl(raw) : raw;
        if (isRoutedUrl(target)) {
          routed = { method: method ? String(method).toUpperCase() : 'GET', url: target, headers: {} };
          resetState(STATES.OPENED);
          fire('readystatechange');
          return undefined;
        }
        routed = null;
        return real.open.apply(real, [method, target].concat(rest));
      };

      self.setRequestHeader = function setRequestHeader(name, value) {
        if (!routed) {
          return real.setRequestHeader(name, value);
        }
        const key = String(name);
        const existing = Object.keys(routed.headers).find(function (candidate) {
          return candidate.toLowerCase() === key.toLowerCase();
        });
        if (existing === undefined) {
          routed.headers[key] = String(value);
        } else {
          routed.headers[existing] += ', ' + String(value);
        }
        return undefined;
      };

      self.send = function send(body) {
        if (!routed) {
          return real.send(body);
        }
        const request = routed;
        const current = generation;
        nativeLog('xhr.native: ' + request.url);
        bodyText(body).then(function (text) {
          return nativeHttpRequest(request.method, request.url, withImplicitContentType(request.headers, body), text);
        }).then(function (answer) {
          if (current !== generation) {
            return;
          }
          const parts = answerParts(answer);
          const text = adaptAnswerBody(request.url, parts.body);
          state.status = parts.status;
          state.statusText = parts.statusText;
          state.headers = parts.headers;
          state.responseText = text;
          state.response = responseValue(text, real.responseType);
          state.responseURL = request.url;
          state.readyState = STATES.DONE;
          fire('readystatechange');
          fire('load');
          fire('loadend');
        }).catch(function () {
          if (current !== generation) {
            return;
          }
          state.readyState = STATES.DONE;
          state.status = 0;
          fire('readystatechange');
          fire('error');
          fire('loadend');
        });
        return undefined;
      };

      self.abort = function abort() {
        if (!routed) {
          return real.abort();
        }
        return undefined;
      };

      self.getResponseHeader = function getResponseHeader(name) {
        if (!routed) {
          return real.getResponseHeader(name);
        }
        return state.readyState === STATES.DONE ? headerLookup(state.headers, name) : null;
      };

      self.getAllResponseHeaders = function getAllResponseHeaders() {
        if (!routed) {
          return real.getAllResponseHeaders();
        }
        if (state.readyState !== STATES.DONE) {
          return '';
        }
        return Object.keys(state.headers).map(function (name) {
          return name + ': ' + state.headers[name];
        }).join('\r\n');
      };

      self.overrideMimeType = function overrideMimeType(mime) {
        return real.overrideMimeType(mime);
      };

      self.addEventListener = function addEventListener(type, listener, options) {
        if (listener == null) {
          return;
        }
        const list = listeners[type] = listeners[type] || [];
        if (list.some(function (entry) { return entry.listener === listener; })) {
          return;
        }
        list.push({ listener: listener, once: Boolean(options && typeof options === 'object' && options.once) });
      };

      self.removeEventListener = function removeEventListener(type, listener) {
        removeListener(type, listener);
      };

      self.dispatchEvent = function dispatchEvent(event) {
        dispatch(event && event.type, event);
        return true;
      };
    }

    Object.keys(STATES).forEach(function (name) {
      Object.defineProperty(XMLHttpRequest, name, { value: STATES[name], enumerable: true });
    });
    XMLHttpRequest.prototype = PageXHR.prototype;
    window.XMLHttpRequest = XMLHttpRequest;
  })();
