  // ---- the page side of the native bridge ----------------------------------------------

  let bridgeSeq = 1;
  const pendingCalls = new Map();

  function messageHandler(name) {
    const webkit = window.webkit;
    const handlers = webkit && webkit.messageHandlers;
    const handler = handlers && handlers[name];
    if (!handler || typeof handler.postMessage !== 'function') {
      throw new Error('native message handler ' + name + ' unavailable');
    }
    return handler;
  }

  function nativeLog(message) {
    try {
      messageHandler('nativeLog').postMessage({ message: String(message) });
    } catch (_) {
      // Logging never disturbs the page.
    }
  }

  function callNative(name, args) {
    return new Promise(function (resolve, reject) {
      const id = String(bridgeSeq++);
      pendingCalls.set(id, { resolve: resolve, reject: reject });
      try {
        const plainArgs = args == null ? [] : Array.prototype.slice.call(args);
        messageHandler('nativeBridge').postMessage({ id: id, name: name, args: plainArgs });
      } catch (error) {
        pendingCalls.delete(id);
        reject(error);
      }
    });
  }

  window.__nativeBridgeResolve = function (id, value) {
    const key = String(id);
    const entry = pendingCalls.get(key);
    if (!entry) {
      return;
    }
    pendingCalls.delete(key);
    entry.resolve(value);
  };

  window.__nativeBridgeReject = function (id, message) {
    const key = String(id);
    const entry = pendingCalls.get(key);
    if (!entry) {
      return;
    }
    pendingCalls.delete(key);
    entry.reject(new Error(message ? String(message) : 'native bridge error'));
  };

  // News from the native side arrives unasked; pages listen for the DOM event "native:<name>"
  // (traffic, proxyState, subscription), its payload in event.detail.
  window.__nativeBridgeEvent = function (name, payload) {
    try {
      window.dispatchEvent(new CustomEvent('native:' + String(name), { detail: payload }));
    } catch (error) {
      nativeLog('nativeEvent.error: ' + errorMessage(error));
    }
  };

  function openExternal(url) {
    nativeLog('openExternal: ' + url);
    if (!url) {
      return Promise.resolve(false);
    }
    return callNative('openExternal', [String(url)]).catch(function (error) {
      nativeLog('openExternal.error: ' + errorMessage(error));
      return false;
    });
  }

  (function installWindowOpen() {
    const pageOpen = typeof window.open === 'function' ? window.open : null;
    const EXTERNAL_LINK = /^(?:https?:|mailto:|\/\/)/i;
    window.open = function (url, target, features) {
      const text = url == null ? '' : String(url);
      if (EXTERNAL_LINK.test(text)) {
        openExternal(text);
        return null;
      }
      return pageOpen ? pageOpen.call(window, url, target, features) : null;
    };
  })();
