  // ---- "/api" requests go to the API base -------------------------------------------------

  const UNTOUCHED_SCHEMES = /^(?:data|blob|file|javascript|mailto):/i;
  const API_PATH = /^\/api(?=[/?#]|$)/;
  const API_RELATIVE_PATH = /^api(?=[/?#]|$)/;

  function rewriteUrl(url) {
    if (typeof url !== 'string' || url === '' || UNTOUCHED_SCHEMES.test(url)) {
      return url;
    }
    const base = currentConfig.api;
    if (!base) {
      return url;
    }
    if (API_PATH.test(url)) {
      return base + url;
    }
    if (API_RELATIVE_PATH.test(url)) {
      return base + '/' + url;
    }
    if (/^https?:\/\//i.test(url)) {
      try {
        const parsed = new URL(url);
        if (API_PATH.test(parsed.pathname)) {
          return base + parsed.pathname + parsed.search + parsed.hash;
        }
      } catch (_) {
        return url;
      }
    }
    return url;
  }

  function installRewriting() {
    if (typeof window.fetch === 'function') {
      const pageFetch = window.fetch;
      window.fetch = function fetch(input, init) {
        let target = input;
        if (typeof input === 'string') {
          target = rewriteUrl(input);
        } else if (typeof URL === 'function' && input instanceof URL) {
          const rewritten = rewriteUrl(input.href);
          target = rewritten === input.href ? input : rewritten;
        }
        return pageFetch.call(window, target, init);
      };
    }
    const PageXHR = window.XMLHttpRequest;
    if (PageXHR && PageXHR.prototype && typeof PageXHR.prototype.open === 'function') {
      const pageOpen = PageXHR.prototype.open;
      PageXHR.prototype.open = function open(method, url) {
        const args = Array.prototype.slice.call(arguments);
        if (typeof url === 'string') {
          args[1] = rewriteUrl(url);
        }
        return pageOpen.apply(this, args);
      };
    }
  }
