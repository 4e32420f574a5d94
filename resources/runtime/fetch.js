  // ---- fetch ------------------------------------------------------------------------------

  (function installFetch() {
    const pageFetch = window.fetch;
    const PageResponse = window.Response;
    if (typeof pageFetch !== 'function' || typeof PageResponse !== 'function') {
      return;
    }
    const NULL_BODY_STATUSES = [101, 103, 204, 205, 304];

    function isRequestObject(input) {
      return typeof window.Request === 'function' && input instanceof window.Request;
    }

    function responseHeaders(headers) {
      if (typeof window.Headers !== 'function') {
        return headers;
      }
      const out = new window.Headers();
      Object.keys(headers).forEach(function (name) {
        try {
          out.append(name, String(headers[name]));
        } catch (_) {
          // A header the page's Headers refuses is dropped, not the whole answer.
        }
      });
      return out;
    }

    function makeResponse(parts, text, url) {
      const status = parts.status;
      if (!(status >= 200 && status <= 599)) {
        throw new TypeError('native request failed with status ' + status);
      }
      const body = NULL_BODY_STATUSES.indexOf(status) >= 0 ? null : text;
      const headers = responseHeaders(parts.headers);
      let response;
      try {
        response = new PageResponse(body, { status: status, statusText: parts.statusText, headers: headers });
      } catch (_) {
        response = new PageResponse(body, { status: status, headers: headers });
      }
      try {
        Object.defineProperty(response, 'url', { value: url, configurable: true });
      } catch (_) {
        // The address is a convenience only.
      }
      return response;
    }

    window.fetch = function fetch(input, init) {
      const raw = urlText(input);
      const target = typeof raw === 'string' ? rewriteApiUrl(raw) : raw;
      if (!isRoutedUrl(target)) {
        return pageFetch.call(window, typeof input === 'string' ? target : input, init);
      }
      nativeLog('fetch.native: ' + target);
      const options = init || {};
      const request = isRequestObject(input) ? input : null;
      const method = options.method || (request && request.method) || 'GET';
      const headers = plainHeaders(options.headers !== undefined ? options.headers : request && request.headers);
      let bodySource = options.body;
      if (bodySource === undefined && request && !/^(?:GET|HEAD)$/i.test(request.method)) {
        bodySource = request.clone();
      }
      return bodyText(bodySource).then(function (body) {
        return nativeHttpRequest(method, target, withImplicitContentType(headers, bodySource), body);
      }).then(function (answer) {
        const parts = answerParts(answer);
        return makeResponse(parts, adaptAnswerBody(target, parts.body), target);
      });
    };
  })();
