  // ---- the remote configuration document --------------------------------------------------

  // The text of a 2xx answer with a body; anything else is a failure.
  function fetchText(url) {
    if (typeof window.fetch !== 'function') {
      return Promise.reject(new Error('fetch unavailable'));
    }
    return window.fetch(url, { method: 'GET', cache: 'no-store' }).then(function (response) {
      if (!response || !response.ok) {
        throw new Error('HTTP ' + (response ? response.status : 'none'));
      }
      return response.text();
    }).then(function (text) {
      if (!text) {
        throw new Error('empty answer');
      }
      return text;
    });
  }

  function loadRemoteConfig() {
    if (!REMOTE_CONFIG_URL) {
      applyConfig(FALLBACK_CONFIG);
      return Promise.resolve();
    }
    return fetchText(withQuery(REMOTE_CONFIG_URL, 't', Date.now())).then(function (text) {
      const document = JSON.parse(text);
      if (!isObject(document)) {
        throw new Error('configuration is not an object');
      }
      applyConfig(document);
    }).catch(function () {
      applyConfig(FALLBACK_CONFIG);
    });
  }
