// Test driver injected into the test's copy of the frontend. Polls the command file, runs each
// new command once (also across the page reloads that login and sign-out cause) and reports
// {"id", "ok", "value" | "error"}.
(function () {
  'use strict';
  const LAST = 'frontend.test.last';
  // Helpers the commands use: find a control by its data-key, click, type, read.
  window.$t = {
    key: (k) => Array.from(document.querySelectorAll('[data-key]')).find((e) => e.getAttribute('data-key') === k) || null,
    click: (k) => {
      const e = $t.key(k);
      if (!e) throw new Error('no control ' + k);
      e.focus();
      e.click();
      return true;
    },
    type: (selector, value) => {
      const e = document.querySelector(selector);
      e.focus();
      e.value = value;
      e.dispatchEvent(new Event('input', { bubbles: true }));
      return true;
    },
    text: (selector) => {
      const e = document.querySelector(selector);
      return e ? e.textContent.replace(/\s+/g, ' ').trim() : null;
    },
    texts: (selector) => Array.from(document.querySelectorAll(selector)).map((e) => e.textContent.replace(/\s+/g, ' ').trim()),
  };
  function report(result) {
    window.webkit.messageHandlers.nativeLog.postMessage({ message: 'frontend.test.result: ' + JSON.stringify(result) });
  }
  function run(command) {
    let value;
    try {
      value = (0, eval)(command.js);
    } catch (error) {
      report({ id: command.id, ok: false, error: String(error) });
      return;
    }
    Promise.resolve(value).then(
      (v) => report({ id: command.id, ok: true, value: v === undefined ? null : v }),
      (error) => report({ id: command.id, ok: false, error: String(error) }));
  }
  async function poll() {
    try {
      const response = await fetch('/driver-commands.json?t=' + Date.now(), { cache: 'no-store' });
      const commands = JSON.parse(await response.text());
      let last = Number(sessionStorage.getItem(LAST) || 0);
      for (const command of commands) {
        if (command.id > last) {
          last = command.id;
          sessionStorage.setItem(LAST, String(last));
          run(command);
        }
      }
    } catch (_) {
      // No commands yet.
    }
    setTimeout(poll, 100);
  }
  window.addEventListener('load', () => {
    report({ id: 0, ok: true, value: 'loaded ' + location.href });
    poll();
  });
})();
