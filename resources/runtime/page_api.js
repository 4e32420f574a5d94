  // ---- window.clash and window.__qevjs ----------------------------------------------------

  function bridgeMethods(target, names) {
    names.forEach(function (name) {
      target[name] = function () {
        return callNative(name, Array.prototype.slice.call(arguments));
      };
    });
    return target;
  }

  if (!(window.clash && window.clash.__nativeBridgeVersion === 2)) {
    const clash = bridgeMethods({
      __nativeBridge: true,
      __nativeBridgeVersion: 2,
      httpProxyPort: HTTP_PROXY_PORT,
      socks5ProxyPort: SOCKS_PROXY_PORT,
      localApiPort: CONTROLLER_PORT,
      localApiUrl: CONTROLLER_BASE,
    }, ['getConfig', 'updateConfig', 'writeConfig', 'putConfig', 'getServers', 'setProxy', 'startProxy',
        'closeProxy', 'stopProxy']);
    const existing = window.clash && typeof window.clash === 'object' ? window.clash : {};
    window.clash = Object.assign({}, existing, clash);
  }

  (function installQevjs() {
    const api = bridgeMethods({}, ['setTun', 'setAutoLaunch', 'normalizeConfig', 'setLanguage', 'getTraffic',
      'getConnections', 'closeConnection', 'closeAllConnections', 'getLogs', 'testDelay', 'getVersion']);
    api.getSettings = function () {
      return callNative('getSettings', []).then(function (settings) {
        if (isPlainObject(settings)) {
          Object.assign(window.__nativeSettingsCache, settings);
        }
        return settings;
      });
    };
    api.focusMainWindow = function () {
      try {
        window.focus();
      } catch (_) {
        // Focus is a courtesy.
      }
    };
    const existing = isPlainObject(window.__qevjs) ? window.__qevjs : {};
    window.__qevjs = Object.assign({}, existing, api);
  })();
