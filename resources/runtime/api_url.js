  // ---- API base and URL rewriting ---------------------------------------------------------

  let fallbackBaseCache = null;

  function fallbackApiBase() {
    if (fallbackBaseCache === null) {
      fallbackBaseCache = decipherText(BUILD.apiBaseCipher, BUILD.cipherKey);
    }
    return fallbackBaseCache;
  }

  function apiBase() {
    let base = window.__QEVJS_API_BASE__;
    if (!nonEmptyString(base)) {
      const config = window.__QEVJS_OSS_CONFIG__;
      base = config && config.api;
    }
    if (!nonEmptyString(base)) {
      base = fallbackApiBase();
    }
    return String(base).replace(/\/+$/, '');
  }

  function parseHttpUrl(text) {
    if (typeof text !== 'string' || !/^https?:\/\//i.test(text)) {
      return null;
    }
    try {
      return new URL(text);
    } catch (_) {
      return null;
    }
  }

  function isControllerUrl(url) {
    return (url.hostname === '127.0.0.1' || url.hostname === 'localhost') &&
           url.port === String(CONTROLLER_PORT);
  }

  const UNTOUCHED_SCHEMES = /^(?:data|blob|file|javascript|mailto):/i;

  function rewriteApiUrl(input) {
    if (!nonEmptyString(input) || UNTOUCHED_SCHEMES.test(input)) {
      return input;
    }
    if (input === '/api' || input.indexOf('/api/') === 0) {
      return apiBase() + input;
    }
    if (input === 'api' || input.indexOf('api/') === 0) {
      return apiBase() + '/' + input;
    }
    const url = parseHttpUrl(input);
    if (!url) {
      return input;
    }
    if (url.pathname.indexOf('/api') === 0) {
      return apiBase() + url.pathname + url.search + url.hash;
    }
    // The frontend's alias group lives in the core under the product's own group.
    if (isControllerUrl(url) && url.pathname === '/proxies/' + ALIAS_GROUP) {
      url.pathname = '/proxies/' + PRODUCT_GROUP;
      return url.href;
    }
    return input;
  }

  function isRoutedUrl(url) {
    return typeof url === 'string' && /^https?:\/\//i.test(url);
  }

  // The URL of a fetch input or an XHR target: strings as they are, URL and Request
  // objects by their address.
  function urlText(input) {
    if (typeof input === 'string') {
      return input;
    }
    if (input && typeof input === 'object') {
      if (typeof input.href === 'string') {
        return input.href;
      }
      if (typeof input.url === 'string') {
        return input.url;
      }
    }
    return input == null ? input : String(input);
  }
