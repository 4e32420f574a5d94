// The native side as the runtime script presents it to the page: window.clash (core,
// configuration, nodes, system proxy), window.__qevjs (settings, TUN) and the electron
// substitute (start at login). Every call returns a promise; without the runtime (a plain
// browser) calls reject with an error the page can show.

export const DEFAULT_VERSION = '5.1.0';

function missing(name) {
  return Promise.reject(new Error(`native message handler ${name} unavailable`));
}

export function createNative(window) {
  function call(objectName, method, args) {
    const target = window[objectName];
    if (!target || typeof target[method] !== 'function') {
      return missing('nativeBridge');
    }
    try {
      return Promise.resolve(target[method](...args));
    } catch (error) {
      return Promise.reject(error);
    }
  }
  const clash = (method, ...args) => call('clash', method, args);
  const qevjs = (method, ...args) => call('__qevjs', method, args);

  return {
    available: () => Boolean(window.clash && typeof window.clash.getConfig === 'function'),
    getConfig: () => clash('getConfig'),
    getServers: () => clash('getServers'),
    setProxy: (name) => clash('setProxy', name),
    startProxy: () => clash('startProxy'),
    stopProxy: () => clash('stopProxy'),
    updateSubscription: (link) => clash('updateConfig', link),
    setMode: (mode) => clash('updateConfig', { mode }),
    getSettings: () => qevjs('getSettings'),
    setTun: (enabled) => qevjs('setTun', enabled),
    setLanguage: (language) => qevjs('setLanguage', language),
    getConnections: () => qevjs('getConnections'),
    closeConnection: (id) => qevjs('closeConnection', id),
    closeAllConnections: () => qevjs('closeAllConnections'),
    getLogs: (level) => qevjs('getLogs', level),

    // News the native side sends unasked ("proxyState", "traffic", "mode", ...).
    onEvent(name, listener) {
      window.addEventListener(`native:${name}`, (event) => listener(event.detail || {}));
    },

    // The runtime's electron substitute hands this to the native side and returns nothing; the
    // state that took effect is read back with getSettings.
    setOpenAtLogin(enabled) {
      try {
        const electron = typeof window.require === 'function' ? window.require('electron') : null;
        const app = electron && electron.remote && electron.remote.app;
        if (!app || typeof app.setLoginItemSettings !== 'function') {
          return missing('nativeBridge');
        }
        app.setLoginItemSettings({ openAtLogin: Boolean(enabled) });
        return Promise.resolve();
      } catch (error) {
        return Promise.reject(error);
      }
    },

    // The runtime sends web links opened this way to the system's browser.
    openExternal(url) {
      try {
        window.open(url, '_blank', 'noopener');
      } catch (_) {
        // Nothing else can be done for a link the page may not open.
      }
    },

    log(message) {
      try {
        window.webkit.messageHandlers.nativeLog.postMessage({ message: String(message) });
      } catch (_) {
        // Logging is a courtesy.
      }
    },
  };
}

// The client version the native side reports, else the built-in one.
export function versionFrom(config) {
  const value = config && (config.version || config.clientVersion || config.appVersion);
  return typeof value === 'string' && value.trim() !== '' ? value.trim() : DEFAULT_VERSION;
}
