  // ---- requests through the bridge, with credential retry ----------------------------------

  function isAuthFailure(answer) {
    const status = isPlainObject(answer) ? Number(answer.status) : 0;
    return status === 401 || status === 403;
  }

  // Every credential form the panel has accepted over time, most specific first.
  function credentialCandidates() {
    const candidates = [];
    function add(value) {
      if (nonEmptyString(value) && candidates.indexOf(value) < 0) {
        candidates.push(value);
      }
    }
    const token = storageGet('token');
    add(storageGet('auth_data'));
    add(storageGet('authorization'));
    if (nonEmptyString(token)) {
      add('Bearer ' + token);
    }
    add(token);
    return candidates;
  }

  function sendThroughBridge(method, url, headers, body) {
    return callNative('httpRequest', [
      { method: method, url: url, headers: headers, body: body == null ? null : body },
    ]).then(function (answer) {
      if (isPlainObject(answer) && answer.body != null) {
        answer.body = normalizeControllerAnswer(url, String(answer.body));
      }
      return answer;
    });
  }

  function nativeHttpRequest(method, url, headers, body) {
    const target = rewriteApiUrl(url);
    const verb = method ? String(method).toUpperCase() : 'GET';
    const baseHeaders = plainHeaders(headers);
    return sendThroughBridge(verb, target, baseHeaders, body).then(function (first) {
      if (!isAuthFailure(first) || String(target).toLowerCase().indexOf('/api/v1/') < 0) {
        return first;
      }
      const candidates = credentialCandidates();
      let attempt = 0;
      function next() {
        if (attempt >= candidates.length) {
          return first;
        }
        const credential = candidates[attempt];
        attempt += 1;
        nativeLog('native.auth.retry: ' + target + ' attempt=' + attempt);
        const retryHeaders = withoutHeader(baseHeaders, 'authorization');
        retryHeaders.Authorization = credential;
        retryHeaders.authorization = credential;
        return sendThroughBridge(verb, target, retryHeaders, body).then(function (answer) {
          if (isAuthFailure(answer)) {
            return next();
          }
          storageSet('authorization', credential);
          return answer;
        }, next);
      }
      return next();
    });
  }

  // Request bodies of every kind the page may send become text (the bridge carries text).
  function bodyText(body) {
    if (body == null) {
      return Promise.resolve(null);
    }
    if (typeof body === 'string') {
      return Promise.resolve(body);
    }
    if (typeof URLSearchParams === 'function' && body instanceof URLSearchParams) {
      return Promise.resolve(body.toString());
    }
    if (typeof FormData === 'function' && body instanceof FormData) {
      const params = [];
      body.forEach(function (value, key) {
        if (typeof value === 'string') {
          params.push(encodeURIComponent(key) + '=' + encodeURIComponent(value));
        }
      });
      return Promise.resolve(params.join('&'));
    }
    if (body && typeof body.text === 'function') {
      return Promise.resolve(body.text());
    }
    if (typeof ArrayBuffer === 'function' && (body instanceof ArrayBuffer || ArrayBuffer.isView(body))) {
      const bytes = body instanceof ArrayBuffer ? new Uint8Array(body)
                                                : new Uint8Array(body.buffer, body.byteOffset, body.byteLength);
      let escaped = '';
      for (let i = 0; i < bytes.length; i++) {
        escaped += (bytes[i] < 16 ? '%0' : '%') + bytes[i].toString(16);
      }
      try {
        return Promise.resolve(decodeURIComponent(escaped));
      } catch (_) {
        return Promise.resolve(String.fromCharCode.apply(null, Array.prototype.slice.call(bytes)));
      }
    }
    return Promise.resolve(String(body));
  }

  // Form bodies become URL-encoded text; the page would have sent that type implicitly.
  function withImplicitContentType(headers, body) {
    const isForm = (typeof URLSearchParams === 'function' && body instanceof URLSearchParams) ||
                   (typeof FormData === 'function' && body instanceof FormData);
    if (!isForm || headerLookup(headers, 'content-type') !== null) {
      return headers;
    }
    return Object.assign({}, headers, { 'Content-Type': 'application/x-www-form-urlencoded;charset=UTF-8' });
  }
