  // ---- start ------------------------------------------------------------------------------

  applyConfig(FALLBACK_CONFIG);
  installRewriting();
  loadRemoteConfig().then(function () {
    const urls = updateCheckUrls();
    window.__QEVJS_UPDATE_CHECK_URL__ = urls.length ? urls[0] : '';
    window.__QEVJS_UPDATE_CHECK_URLS__ = urls;
    setTimeout(function () {
      runUpdateCheck(urls);
    }, UPDATE_CHECK_DELAY_MS);
  });
})();
