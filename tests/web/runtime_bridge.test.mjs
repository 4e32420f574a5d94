// The web runtime's install guard, its bridge client and its page-level hooks.
import assert from 'node:assert/strict';
import { describe, it } from 'node:test';

import { Page, plain, settle, withPage } from './support/harness.mjs';

describe('installation', () => {
  it('a second evaluation installs nothing and keeps the first bridge state', async () => {
    await withPage({}, async (page, window) => {
      const installed = () => [
        window.require, window.fetch, window.XMLHttpRequest, window.open, window.clash, window.__qevjs,
        window.__nativeBridgeResolve, window.Storage.prototype.setItem, window.console.warn, window.process,
      ];
      const before = installed();
      const first = window.clash.getConfig();
      page.evaluate('runtime');
      installed().forEach((value, i) => assert.equal(value, before[i], `installed object ${i}`));
      // The call made before the second evaluation is still answered.
      page.bridge.resolve('1', { ok: 1 });
      assert.deepEqual(plain(await first), { ok: 1 });
      window.clash.getServers();
      assert.deepEqual(page.bridge.messages.map((m) => m.id), ['1', '2']);
    });
  });

});

describe('bridge client', () => {
  it('numbers calls from 1, posts plain argument arrays and answers each id once', async () => {
    await withPage({}, async (page, window) => {
      const a = window.clash.setProxy('GLOBAL', 'HK-01');
      const b = window.__qevjs.getSettings();
      const c = window.clash.updateConfig({ mode: 'rule' });
      assert.deepEqual(page.bridge.messages, [
        { id: '1', name: 'setProxy', args: ['GLOBAL', 'HK-01'] },
        { id: '2', name: 'getSettings', args: [] },
        { id: '3', name: 'updateConfig', args: [{ mode: 'rule' }] },
      ]);
      // Answers may come in any order; unknown and repeated ids are ignored.
      page.bridge.resolve('3', false);
      page.bridge.resolve('99', 'nobody');
      page.bridge.resolve('1', true);
      page.bridge.resolve('1', 'second answer');
      page.bridge.resolve('2', { tun: true });
      assert.deepEqual(plain(await Promise.all([a, b, c])), [true, { tun: true }, false]);
    });
  });

  it('hands native events to page listeners as DOM events', async () => {
    await withPage({}, async (page, window) => {
      const heard = [];
      window.addEventListener('native:proxyState', (event) => heard.push(plain(event.detail)));
      window.addEventListener('native:proxyState', () => { throw new Error('a bad listener'); });
      window.__nativeBridgeEvent('proxyState', { connected: false, reason: 'coreStopped' });
      window.__nativeBridgeEvent('traffic', { up: 1 });
      assert.deepEqual(heard, [{ connected: false, reason: 'coreStopped' }]);
    });
  });

  it('rejects with the native message, or a generic one when it is empty', async () => {
    await withPage({}, async (page, window) => {
      const failing = window.clash.startProxy();
      const silent = window.clash.stopProxy();
      page.bridge.reject('1', 'NODE_UNAVAILABLE');
      page.bridge.reject('2', '');
      await assert.rejects(failing, { message: 'NODE_UNAVAILABLE' });
      await assert.rejects(silent, { message: 'native bridge error' });
      page.bridge.resolve('1', true); // already settled: no effect, no error
    });
  });

  it('rejects at once and forgets the id when posting fails', async () => {
    await withPage({}, async (page, window) => {
      page.bridge.failPosting = true;
      await assert.rejects(window.clash.getConfig(), { message: 'native message handler nativeBridge unavailable' });
      page.bridge.failPosting = false;
      const next = window.clash.getConfig();
      assert.equal(page.bridge.messages[0].id, '2');
      page.bridge.resolve('2', 'ok');
      assert.equal(await next, 'ok');
    });
  });

});

describe('page hooks', () => {
  it('window.open sends web and mail links to the system and keeps the rest', async () => {
    const opened = [];
    await withPage({ before: (window) => { window.open = (...args) => { opened.push(args); return 'page-window'; }; } },
                   async (page, window) => {
      page.bridge.answer('openExternal', () => true);
      for (const link of ['//example.com/x', 'HTTPS://example.com/', 'http://a.example', 'MailTo:x@example.com']) {
        assert.equal(window.open(link, '_blank'), null, link);
      }
      assert.equal(window.open('/local/route', 'frame', 'noopener'), 'page-window');
      assert.equal(window.open('about:blank'), 'page-window');
      assert.deepEqual(page.bridge.calls('openExternal').map((m) => m.args),
                       [['//example.com/x'], ['HTTPS://example.com/'], ['http://a.example'], ['MailTo:x@example.com']]);
      assert.deepEqual(opened, [['/local/route', 'frame', 'noopener'], ['about:blank', undefined, undefined]]);
    });
  });

  it('logs console warnings and errors, then calls the page console', async () => {
    const seen = [];
    await withPage({ before: (window) => {
      window.console.warn = (...args) => seen.push(['warn', ...args]);
      window.console.error = (...args) => seen.push(['error', ...args]);
    } }, (page, window) => {
      const cyclic = {};
      cyclic.self = cyclic;
      const error = new window.Error('boom');
      window.console.warn('text', 42, { a: [1] }, null);
      window.console.error(error, cyclic);
      assert.deepEqual(page.bridge.logged('console.'), [
        'console.warn: text 42 {"a":[1]} null',
        `console.error: ${error.stack} [object Object]`,
      ]);
      assert.equal(seen.length, 2);
      assert.deepEqual(plain(seen[0]), ['warn', 'text', 42, { a: [1] }, null]);
    });
  });

});
