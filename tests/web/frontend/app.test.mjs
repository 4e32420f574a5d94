// The frontend driven like a user would, on a page with the real runtime script and a scripted
// native side: login with both panel generations, the account summary, the subscription
// hand-over, connecting (and a dead node), nodes and latency, settings, expiry and sign-out.
import assert from 'node:assert/strict';
import { describe, it } from 'node:test';

import { plain } from '../support/harness.mjs';
import { $, API, byKey, DEMO, openApp, settle, text, type, until } from './support/fake_native.mjs';
import { SIGNED_IN, click, nodesReady, signedIn, submitLogin, withApp } from './support/fake_native.mjs';

describe('login', () => {
  const refusals = [
    ['v1 wrong password', 'v1', DEMO.email, 'wrong-password', '邮箱或密码错误', 500],
    ['v2 wrong password', 'v2', DEMO.email, 'wrong-password', '邮箱或密码错误', 400],
    ['v2 unknown account', 'v2', 'nobody@qev.test', DEMO.password, '邮箱或密码错误', 400],
    ['password too short (validation)', 'v1', DEMO.email, 'short', '密码必须大于8位数', 422],
  ];
  for (const [name, generation, email, password, message, status] of refusals) {
    it(`shows the panel's words: ${name}`, async () => {
      await withApp({ signedIn: false, generation }, async ({ document, window, panel }) => {
        await submitLogin(document, email, password);
        await until(() => $(document, '#login-error'), 'the error');
        assert.equal(text(document, '#login-error'), message);
        assert.equal($(document, '#login-error').getAttribute('role'), 'alert');
        assert.equal(panel.requests.at(-1).path, '/api/v1/passport/auth/login');
        assert.equal(window.localStorage.getItem('auth_data'), null);
        assert.equal(byKey(document, 'login-submit').disabled, false, `the form is usable again after ${status}`);
        assert.equal(window.document.activeElement, $(document, '#password'));
      });
    });
  }

  for (const generation of ['v1', 'v2']) {
    it(`${generation}: signs in, shows the account and hands the subscription over`, async () => {
      await withApp({ signedIn: false, generation }, async ({ document, window, page, panel, native }) => {
        await submitLogin(document, DEMO.email, DEMO.password);
        await until(() => $(document, '#plan-name'), 'the account summary');
        // The runtime stored the session as it does for the vendor's frontend.
        const credential = [...panel.sessions][0];
        assert.equal(window.localStorage.getItem('token'), DEMO.token);
        assert.equal(window.localStorage.getItem('auth_data'), credential);
        const summary = panel.requests.filter((r) => r.path === '/api/v1/user/getSubscribe');
        assert.equal(summary[0].headers.authorization, credential, 'the first request already carries the session');
        assert.equal(text(document, '#plan-name'), '标准套餐');
        assert.equal(text(document, '.traffic-used'), '已用 2.34 GB / 共 100 GB');
        assert.equal($(document, '[role=progressbar]').getAttribute('aria-valuenow'), '2');
        const facts = Array.from(document.querySelectorAll('.fact')).map((fact) => [
          fact.querySelector('dt').textContent, fact.querySelector('dd').firstChild.textContent, text(fact, '.fact-note')]);
        assert.match(facts[0][1], /^2026-12-3[01]$/, 'the expiry date in the local time zone');
        assert.match(facts[0][2], /^剩余 \d+ 天$/);
        assert.deepEqual([facts[0][0], facts[1]], ['到期', ['流量重置', '12 天后', '']]);
        // The warm-up gives the native side the subscription; the node list follows.
        await until(() => native.subscribeLinks.length === 1, 'the subscription hand-over');
        assert.equal(native.subscribeLinks[0], `${API}/api/v1/client/subscribe?token=${DEMO.token}&flag=clash.meta`);
        await until(() => text(document, '.node-row-name') === 'HK-01', 'the selected node');
        assert.ok(page.bridge.logs.includes('frontend.login.ok'));
      });
    });
  }

});

describe('connecting', () => {
  it('a dead node shows as unavailable, another node connects, disconnect switches off', async () => {
    await withApp({ setUp: (native) => {
      native.deadNodes.add('HK-01');
      native.table = true;
      native.coreRunning = true;
    } }, async ({ document, native, page }) => {
      await until(() => text(document, '.node-row-name') === 'HK-01', 'the selected node');
      assert.equal(text(document, '#connect-status'), 'Not connected');
      click(document, 'connect');
      await until(() => $(document, '.connect .alert'), 'the unavailable state');
      assert.deepEqual(Array.from($(document, '.connect .alert').children).map((e) => e.textContent),
        ['The selected node is unavailable', 'Choose another node under Nodes and try again.', 'Choose a node']);
      assert.equal(native.proxyEnabled, false);
      assert.equal(byKey(document, 'connect').getAttribute('data-state'), 'problem');
      assert.equal(document.getElementById('announcer').textContent,
        'The selected node is unavailable. Choose another node under Nodes and try again.');

      click(document, 'choose-node');
      await until(() => document.querySelectorAll('.node').length === 3, 'the node list');
      assert.equal($(document, '.node[aria-pressed=true] .node-name').textContent, 'HK-01');
      click(document, 'node:JP-02 东京');
      await until(() => text(document, '.nodes .notice') === 'Switched to JP-02 东京.', 'the switch');
      await until(() => !$(document, '.nodes .notice'), 'the notice going away by itself', 6000);
      assert.deepEqual(plain(page.bridge.calls('setProxy').map((c) => c.args)), [['JP-02 东京']]);
      assert.equal($(document, '.node[aria-pressed=true] .node-name').textContent, 'JP-02 东京');

      click(document, 'tab:home');
      assert.equal(text(document, '.node-row-name'), 'JP-02 东京');
      assert.equal(byKey(document, 'connect').getAttribute('data-state'), 'off', 'a new node may be tried again');
      click(document, 'connect');
      await until(() => text(document, '#connect-status') === 'Connected', 'the connection');
      assert.equal(native.proxyEnabled, true);
      assert.equal(text(document, '.power-label'), 'Disconnect');

      click(document, 'connect');
      await until(() => text(document, '#connect-status') === 'Not connected', 'the disconnection');
      assert.equal(native.proxyEnabled, false);
      assert.equal(page.bridge.calls('stopProxy').length, 1);
    });
  });

});

describe('news from the native side', () => {
  it('follows a connection made elsewhere, and says so when the core stops', async () => {
    await withApp({ setUp: (native) => { native.table = true; native.coreRunning = true; } }, async ({ document, window }) => {
      await nodesReady(document);
      click(document, 'tab:home');
      const tell = (name, detail) => window.dispatchEvent(new window.CustomEvent(`native:${name}`, { detail }));
      tell('proxyState', { connected: true, reason: 'started' });
      assert.equal(text(document, '#connect-status'), 'Connected');
      tell('traffic', { up: 2048, down: 3 * 1024 * 1024 });
      assert.equal(text(document, '.speed-down dd'), '3 MB/s');
      tell('proxyState', { connected: false, reason: 'coreStopped' });
      assert.equal(text(document, '#connect-status'), 'Not connected');
      assert.equal(text(document, '.connect .alert'), 'Disconnected: the proxy core stopped');
      tell('mode', { mode: 'global' });
      assert.equal(text(document, '.routing-mode'), 'Global mode');
      tell('proxyState', { connected: false, reason: 'unavailable', detail: 'NODE_UNAVAILABLE' });
      assert.equal(text(document, '.connect .alert strong'), 'The selected node is unavailable');
    });
  });
});

describe('nodes', () => {
  it('measures latency through the controller and shows each result', async () => {
    await withApp({ setUp: (native) => { native.table = true; native.coreRunning = true; } }, async ({ document, page }) => {
      await nodesReady(document);
      assert.equal(text(document, '.node-item:nth-child(1) .delay'), '88 ms', 'the core\'s last measurement');
      click(document, 'test-latency');
      await until(() => !byKey(document, 'test-latency').disabled, 'the end of the test');
      const delays = Array.from(document.querySelectorAll('.node-item')).map((item) => [
        item.querySelector('.node-name').textContent, item.querySelector('.delay').textContent, item.querySelector('.delay').className]);
      assert.deepEqual(delays, [
        ['HK-01', '35 ms', 'delay delay-fast'],
        ['JP-02 东京', '320 ms', 'delay delay-fair'],
        ['US/03 Los Angeles', 'Timed out', 'delay delay-slow'],
      ]);
      const urls = page.bridge.httpRequests().map((r) => r.url).filter((url) => url.includes('/delay'));
      assert.ok(urls.includes('http://127.0.0.1:33212/proxies/US%2F03%20Los%20Angeles/delay?timeout=5000&url=http%3A%2F%2Fwww.gstatic.com%2Fgenerate_204'));

      // Sorted by latency, untested and failed last; searched by any part of the name.
      const sort = byKey(document, 'node-sort');
      sort.value = 'latency';
      sort.dispatchEvent(new page.window.Event('change'));
      assert.deepEqual(Array.from(document.querySelectorAll('.node-name')).map((e) => e.textContent),
        ['HK-01', 'JP-02 东京', 'US/03 Los Angeles']);
      type(byKey(document, 'node-search'), 'los');
      assert.deepEqual(Array.from(document.querySelectorAll('.node-name')).map((e) => e.textContent), ['US/03 Los Angeles']);
      type(byKey(document, 'node-search'), 'nothing like it');
      assert.equal(text(document, '.nodes .empty'), 'No node matches');
    });
  });

  it('switching while connected reports the new node\'s latency, or warns that it is silent', async () => {
    await withApp({ setUp: (native) => { native.table = true; native.coreRunning = true; } }, async ({ document, native }) => {
      await nodesReady(document);
      click(document, 'tab:home');
      click(document, 'connect');
      await until(() => text(document, '#connect-status') === 'Connected', 'the connection');
      click(document, 'tab:nodes');
      click(document, 'node:JP-02 东京');
      await until(() => text(document, '.nodes .notice') === 'Switched to JP-02 东京: 320 ms.', 'the latency');
      delete native.delays['HK-01'];
      click(document, 'node:HK-01');
      await until(() => $(document, '.nodes .alert'), 'the warning');
      assert.equal(text(document, '.nodes .alert'),
        'Switched to HK-01, but it does not answer: the connection may not work. Choose another node.');
    });
  });

  it('a refused switch keeps the old node and says why', async () => {
    await withApp({ setUp: (native) => { native.table = true; native.coreRunning = true; } }, async ({ document, page }) => {
      page.bridge.answer('setProxy', () => {
        throw new Error('Selector update error: proxy not exist');
      });
      await nodesReady(document);
      click(document, 'node:JP-02 东京');
      await until(() => $(document, '.nodes .alert'), 'the error');
      assert.equal(text(document, '.nodes .alert'), 'Could not switch to JP-02 东京: Something went wrong: Selector update error: proxy not exist');
      assert.equal($(document, '.node[aria-pressed=true] .node-name').textContent, 'HK-01');
    });
  });
});

describe('settings', () => {
  it('routing mode, TUN, start at login, website and version', async () => {
    await withApp({ setUp: (native) => { native.coreRunning = true; native.table = true; } }, async ({ document, page, native }) => {
      await until(() => $(document, '#plan-name'), 'the home page');
      click(document, 'tab:settings');
      assert.equal($(document, '#mode-rule').checked, true);
      assert.equal(text(document, '.version'), '5.1.0');

      $(document, '#mode-global').click();
      await until(() => native.settings.mode === 'global', 'the mode change');
      const modeCalls = page.bridge.calls('updateConfig').filter((c) => typeof c.args[0] === 'object');
      assert.deepEqual(plain(modeCalls.map((c) => c.args)), [[{ mode: 'global' }]]);
      assert.equal($(document, '#mode-global').checked, true);

      native.refuseTun = true;
      $(document, '#tun').click();
      await until(() => !$(document, '#tun').disabled, 'the TUN answer');
      assert.equal($(document, '#tun').checked, false);
      assert.equal(text(document, '.settings .alert'), 'Administrator approval was refused, so TUN mode stays off.');
      native.refuseTun = false;
      $(document, '#tun').click();
      await until(() => !$(document, '#tun').disabled, 'the TUN answer');
      assert.equal($(document, '#tun').checked, true);
      assert.equal($(document, '.settings .alert'), null);

      $(document, '#auto-launch').click();
      await until(() => !$(document, '#auto-launch').disabled, 'the start-at-login answer');
      assert.equal($(document, '#auto-launch').checked, true);
      assert.deepEqual(plain(page.bridge.calls('setAutoLaunch')[0].args), [{ openAtLogin: true }]);

      await until(() => !byKey(document, 'website').disabled, 'the website address');
      click(document, 'website');
      await until(() => page.bridge.calls('openExternal').length === 1, 'the external link');
      assert.deepEqual(plain(page.bridge.calls('openExternal')[0].args), ['https://panel.qev.test']);
    });
  });

  it('switches the language everywhere and remembers it', async () => {
    await withApp({ languages: ['zh-CN'] }, async ({ document, window }) => {
      await until(() => $(document, '#plan-name'), 'the home page');
      assert.equal(document.documentElement.lang, 'zh-CN');
      assert.deepEqual(Array.from(document.querySelectorAll('.tab-label')).map((e) => e.textContent), ['首页', '节点', '活动', '设置']);
      byKey(document, 'lang-toggle').focus();
      click(document, 'lang-toggle');
      assert.equal(document.documentElement.lang, 'en');
      assert.deepEqual(Array.from(document.querySelectorAll('.tab-label')).map((e) => e.textContent), ['Home', 'Nodes', 'Activity', 'Settings']);
      assert.equal(text(document, '.traffic-used'), '2.34 GB of 100 GB used');
      assert.equal(window.localStorage.getItem('qev.language'), 'en');
      assert.equal(document.activeElement, byKey(document, 'lang-toggle'), 'focus stays on the toggle');
      click(document, 'tab:settings');
      const select = $(document, '#language');
      select.value = 'zh-CN';
      select.dispatchEvent(new window.Event('change'));
      assert.equal(text(document, '.view-title'), '设置');
    });
  });
});

describe('session end', () => {

  it('signing out switches the proxy off, forgets the session and starts a fresh page', async () => {
    await withApp({ setUp: (native) => { native.proxyEnabled = true; } }, async ({ document, window, page, native }) => {
      await until(() => text(document, '#connect-status') === 'Connected', 'the connected state');
      await until(() => $(document, '#plan-name'), 'the account');
      click(document, 'tab:settings');
      assert.equal(text(document, '.email'), DEMO.email);
      click(document, 'logout');
      await until(() => $(document, '#email'), 'the login page');
      assert.equal(native.proxyEnabled, false);
      assert.equal(window.localStorage.getItem('auth_data'), null);
      assert.equal($(document, '#email').value, DEMO.email, 'the address is kept for the next login');
      assert.equal($(document, '.tabs'), null);
      await until(() => page.navigationAttempts > 0, 'the reload');
    });
  });
});
