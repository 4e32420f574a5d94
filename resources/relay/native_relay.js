// Runs in qev's isolated script world, in the top frame of the app's own origin only: the one
// place that can reach the native message handlers. It hands on what the page's runtime posts
// (see the runtime's bridge) and nothing else.
(function () {
  'use strict';
  const ATTRIBUTE = 'data-qev-native-message';
  const CHANNELS = ['nativeBridge', 'nativeLog'];
  document.addEventListener(
    'qev-native-message',
    function () {
      const root = document.documentElement;
      const text = root && root.getAttribute(ATTRIBUTE);
      if (text === null || text === undefined) {
        return;
      }
      root.removeAttribute(ATTRIBUTE);
      let message;
      try {
        message = JSON.parse(text);
      } catch (_) {
        return;
      }
      if (!message || CHANNELS.indexOf(message.channel) < 0) {
        return;
      }
      window.webkit.messageHandlers[message.channel].postMessage(message.body);
    },
    true
  );
})();
