  // ---- small helpers -------------------------------------------------------------------

  function noop() {}

  function isPlainObject(value) {
    return value !== null && typeof value === 'object' && !Array.isArray(value);
  }

  function nonEmptyString(value) {
    return typeof value === 'string' && value !== '';
  }

  function errorMessage(error) {
    if (error && typeof error.message === 'string') {
      return error.message;
    }
    try {
      return String(error);
    } catch (_) {
      return 'unknown error';
    }
  }

  function later(fn, ms) {
    return setTimeout(fn, ms || 0);
  }

  // An exception from page code called by the runtime surfaces like any page error,
  // without breaking the runtime's own sequence.
  function reportLater(error) {
    later(function () {
      throw error;
    });
  }

  // Storage may be missing or refuse access (opaque origins, private modes): reads then
  // find nothing and writes are dropped.
  function storageArea(name) {
    try {
      return window[name] || null;
    } catch (_) {
      return null;
    }
  }

  function storageRead(name, key) {
    const area = storageArea(name);
    if (!area) {
      return null;
    }
    try {
      return area.getItem(key);
    } catch (_) {
      return null;
    }
  }

  function storageWrite(name, key, value) {
    const area = storageArea(name);
    if (!area) {
      return false;
    }
    try {
      area.setItem(key, String(value));
      return true;
    } catch (_) {
      return false;
    }
  }

  function storageGet(key) {
    return storageRead('localStorage', key);
  }

  function storageSet(key, value) {
    return storageWrite('localStorage', key, value);
  }

  // Header collections of every shape the page uses (Headers, pairs, plain objects)
  // become one plain object of strings.
  function plainHeaders(headers) {
    const out = {};
    if (!headers || typeof headers !== 'object') {
      return out;
    }
    if (typeof headers.forEach === 'function' && typeof headers.get === 'function') {
      headers.forEach(function (value, name) {
        out[name] = String(value);
      });
      return out;
    }
    if (Array.isArray(headers)) {
      headers.forEach(function (pair) {
        if (Array.isArray(pair) && pair.length >= 2) {
          out[String(pair[0])] = String(pair[1]);
        }
      });
      return out;
    }
    Object.keys(headers).forEach(function (name) {
      const value = headers[name];
      if (value != null) {
        out[name] = Array.isArray(value) ? value.join(', ') : String(value);
      }
    });
    return out;
  }

  function headerLookup(headers, name) {
    if (!isPlainObject(headers)) {
      return null;
    }
    const wanted = String(name).toLowerCase();
    const key = Object.keys(headers).find(function (candidate) {
      return candidate.toLowerCase() === wanted;
    });
    return key === undefined ? null : String(headers[key]);
  }

  function withoutHeader(headers, name) {
    const wanted = name.toLowerCase();
    const out = {};
    Object.keys(headers || {}).forEach(function (key) {
      if (key.toLowerCase() !== wanted) {
        out[key] = headers[key];
      }
    });
    return out;
  }
