  // ---- the page side of the native bridge ----------------------------------------------

  let bridgeSeq = 1;
  const pendingCalls = new Map();

  // The native message handlers live in an isolated script world that only a relay of the app
  // reaches, in the top frame of the app's own origin; no page script and no frame of another
  // origin can post to them. A message leaves as a document attribute and a synchronous event:
  // the relay takes the attribute away, so one still present means nobody took it.
  const NATIVE_MESSAGE_ATTRIBUTE = 'data-qev-native-message';
  const NATIVE_MESSAGE_EVENT = 'qev-native-message';

  function postToNative(channel, body) {
    const root = document.documentElement;
    root.setAttribute(NATIVE_MESSAGE_ATTRIBUTE, JSON.stringify({ channel: channel, body: body }));
    document.dispatchEvent(new Event(NATIVE_MESSAGE_EVENT));
    if (root.hasAttribute(NATIVE_MESSAGE_ATTRIBUTE)) {
      root.removeAttribute(NATIVE_MESSAGE_ATTRIBUTE);
      throw new Error('native message handler ' + channel + ' unavailable');
    }
  }

  function messageHandler(name) {
    return {
      postMessage: function (body) {
        postToNative(name, body);
      },
    };
  }

  // Pages that post to window.webkit.messageHandlers themselves keep working in the app's frame.
  if (!window.webkit || !window.webkit.messageHandlers) {
    window.webkit = {
      messageHandlers: { nativeBridge: messageHandler('nativeBridge'), nativeLog: messageHandler('nativeLog') },
    };
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
