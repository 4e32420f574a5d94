  // ---- small helpers -------------------------------------------------------------------

  function isObject(value) {
    return value !== null && typeof value === 'object' && !Array.isArray(value);
  }

  function storageGet(key) {
    try {
      return window.localStorage ? window.localStorage.getItem(key) : null;
    } catch (_) {
      return null;
    }
  }

  // Adds one query parameter, keeping a fragment at the end.
  function withQuery(url, name, value) {
    const hashAt = url.indexOf('#');
    const head = hashAt >= 0 ? url.slice(0, hashAt) : url;
    const hash = hashAt >= 0 ? url.slice(hashAt) : '';
    return head + (head.indexOf('?') >= 0 ? '&' : '?') + name + '=' + value + hash;
  }
