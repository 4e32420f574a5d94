// The web runtime's network layer: URL rewriting, routing through the bridge, credential
// retry, the controller's proxy table, and the fetch and XMLHttpRequest replacements.
import assert from 'node:assert/strict';
import { describe, it } from 'node:test';

import { deployment, plain, settle, waitFor, withPage } from './support/harness.mjs';

const API = 'https://panel.test';
const withApiBase = { before: (window) => { window.__QEVJS_API_BASE__ = API + '//'; } };
const PRODUCT_GROUP_PATH = '/proxies/QEV加速';

describe('URL rewriting and routing', () => {
  const cases = [
    { input: '/api/v1/user/info', routed: API + '/api/v1/user/info' },
    { input: '/api', routed: API + '/api' },
    { input: 'api/v1/x?y=1', routed: API + '/api/v1/x?y=1' },
    { input: 'api', routed: API + '/api' },
    { input: 'https://old-panel.example/api/v1/x?a=1#frag', routed: API + '/api/v1/x?a=1#frag' },
    { input: 'http://127.0.0.1:33212/api/v1/x', routed: API + '/api/v1/x' },
    { input: 'http://127.0.0.1:33212/proxies/SELECT', routed: 'http://127.0.0.1:33212' + PRODUCT_GROUP_PATH },
    { input: 'http://localhost:33212/proxies/SELECT', routed: 'http://localhost:33212' + PRODUCT_GROUP_PATH },
    { input: 'http://127.0.0.1:33212/proxies/GLOBAL', routed: 'http://127.0.0.1:33212/proxies/GLOBAL' },
    { input: 'http://127.0.0.1:9090/proxies/SELECT', routed: 'http://127.0.0.1:9090/proxies/SELECT' },
    { input: 'HTTPS://cdn.example/lib.js', routed: 'HTTPS://cdn.example/lib.js' },
    { input: '/assets/app.js', page: '/assets/app.js' },
    { input: '/apidocs', page: '/apidocs' },
    { input: 'mailto:someone@example.com', page: 'mailto:someone@example.com' },
    { input: 'DATA:text/plain,/api/', page: 'DATA:text/plain,/api/' },
    { input: 'blob:http://app.test/1', page: 'blob:http://app.test/1' },
  ];

  it('fetch routes absolute http(s) URLs after rewriting and leaves the rest to the page', async () => {
    await withPage(withApiBase, async (page, window) => {
      page.bridge.answer('httpRequest', () => ({ body: 'native' }));
      for (const { input, routed, page: pageUrl } of cases) {
        const before = page.bridge.httpRequests().length;
        const text = await (await window.fetch(input)).text();
        if (routed) {
          assert.equal(text, 'native', input);
          assert.equal(decodeURI(page.bridge.httpRequests()[before].url), routed, input);
          assert.ok(page.bridge.logs.includes('fetch.native: ' + page.bridge.httpRequests()[before].url));
        } else {
          assert.equal(page.bridge.httpRequests().length, before, input);
          assert.equal(page.pageFetches.at(-1).input, pageUrl);
          assert.equal(text, 'page:' + pageUrl);
        }
      }
    });
  });

});

describe('credential retry', () => {
  // A panel that accepts exactly one credential and records what it was offered.
  function panelAccepting(accepted, { status = 403 } = {}) {
    const offered = [];
    const responder = (args) => {
      const credential = args[0].headers.Authorization;
      offered.push(credential === undefined ? null : credential);
      assert.equal(args[0].headers.authorization, args[0].headers.Authorization);
      return credential === accepted ? { status: 200, body: 'welcome' } : { status, body: `refused ${offered.length}` };
    };
    return { offered, responder };
  }

  it('tries auth_data, then Bearer token, then the token, and stores the credential that worked', async () => {
    const storage = { auth_data: 'legacy-cred', token: 'tok123' };
    await withPage({ ...withApiBase, storage }, async (page, window) => {
      const panel = panelAccepting('Bearer tok123');
      page.bridge.answer('httpRequest', panel.responder);
      const response = await window.fetch('/api/v1/user/info');
      assert.equal(response.status, 200);
      assert.equal(await response.text(), 'welcome');
      assert.deepEqual(panel.offered, [null, 'legacy-cred', 'Bearer tok123']);
      assert.equal(window.localStorage.getItem('authorization'), 'Bearer tok123');
      assert.deepEqual(page.bridge.logged('native.auth.retry'), [
        `native.auth.retry: ${API}/api/v1/user/info attempt=1`,
        `native.auth.retry: ${API}/api/v1/user/info attempt=2`,
      ]);
    });
  });

});

describe('the controller proxy table', () => {
  const HIDDEN_EXACT = ['自动选择', '自動選擇', 'Auto Select', 'Automatic', 'Auto', '自動選択', '자동 선택',
    '故障转移', '故障轉移', 'Fallback', 'フェイルオーバー', '장애 조치', 'DIRECT', 'REJECT'];
  const HIDDEN_PREFIXES = ['剩余流量', '剩餘流量', '距离下次重置', '距離下次重置', '下次重置', '套餐到期',
    'Remaining Traffic', 'Next Reset', 'Reset', 'Plan Expires', 'Expires', '残り通信量', '次回リセット',
    'プラン期限', '有効期限', '남은 트래픽', '다음 초기화', '플랜 만료', '만료'];
  const hidden = [
    ...HIDDEN_EXACT, ...HIDDEN_EXACT.map((name) => ` ${name}\n`),
    ...HIDDEN_PREFIXES.map((prefix) => `${prefix}：12.5 GB`),
  ];
  const visible = ['HK-01', 'auto', 'Auto Select 2', 'direct', 'My Reset', ' ', 'Expire', '🇯🇵 Tokyo'];

  function controllerTable() {
    const proxies = {};
    for (const name of [...hidden, ...visible]) {
      proxies[name] = { name, type: 'Shadowsocks' };
    }
    proxies['QEV加速'] = { name: 'QEV加速', type: 'Selector', all: ['自动选择', ...hidden.slice(20, 30), 'HK-01', 'JP-02'], now: '自动选择' };
    proxies.OnlyHidden = { name: 'OnlyHidden', type: 'Selector', all: ['DIRECT', 'Expires 2030'], now: 'Expires 2030' };
    proxies.Mixed = { name: 'Mixed', type: 'Selector', all: ['HK-01', 7], now: 'DIRECT' };
    proxies.KeptName = { name: 'KeptName', type: 'Selector', all: ['HK-01', 'JP-02'], now: 'JP-02' };
    proxies.Renamed = { name: 'Fallback', type: 'URLTest' };
    proxies.Scalar = 42;
    return { proxies, extra: 'kept' };
  }

  it('drops hidden choices from the table and from every group', async () => {
    await withPage({}, async (page, window) => {
      page.bridge.answer('httpRequest', () => ({ body: JSON.stringify(controllerTable()) }));
      const answer = await (await window.fetch('http://127.0.0.1:33212/proxies')).json();
      const { proxies } = answer;
      assert.equal(answer.extra, 'kept');
      for (const name of hidden) {
        assert.equal(name in proxies, false, `hidden: ${JSON.stringify(name)}`);
      }
      for (const name of visible) {
        assert.ok(name in proxies, `visible: ${JSON.stringify(name)}`);
      }
      assert.deepEqual(plain(proxies['QEV加速']), { name: 'QEV加速', type: 'Selector', all: ['HK-01', 'JP-02'], now: 'HK-01' });
      assert.deepEqual(plain(proxies.OnlyHidden), { name: 'OnlyHidden', type: 'Selector', all: [], now: '' });
      assert.deepEqual(plain(proxies.Mixed), { name: 'Mixed', type: 'Selector', all: ['HK-01', 7], now: 'DIRECT' });
      assert.deepEqual(plain(proxies.KeptName), controllerTable().proxies.KeptName);
      assert.equal('Renamed' in proxies, false, 'an entry whose own name is hidden goes too');
      assert.equal(proxies.Scalar, 42);
    });
  });

});

describe('fetch', () => {
  it('sends method, headers and body, and answers with status, text and headers', async () => {
    await withPage(withApiBase, async (page, window) => {
      page.bridge.answer('httpRequest', () => ({ status: 422, statusText: 'Unprocessable', headers: { 'X-Trace': 'abc' }, body: '{"e":1}' }));
      const headers = new window.Headers({ 'Content-Type': 'application/json' });
      const response = await window.fetch('/api/v1/passport/auth/register', { method: 'post', headers, body: '{"email":"x"}' });
      assert.equal(response.status, 422);
      assert.equal(response.statusText, 'Unprocessable');
      assert.equal(response.ok, false);
      assert.equal(response.headers.get('x-trace'), 'abc');
      assert.equal(response.url, API + '/api/v1/passport/auth/register');
      assert.deepEqual(plain(await response.json()), { e: 1 });
      assert.deepEqual(page.bridge.httpRequests()[0], {
        method: 'POST', url: API + '/api/v1/passport/auth/register',
        headers: { 'content-type': 'application/json' }, body: '{"email":"x"}',
      });
    });
  });

});

describe('XMLHttpRequest', () => {
  function recordEvents(xhr, window) {
    const events = [];
    for (const type of ['readystatechange', 'load', 'error', 'loadend']) {
      xhr['on' + type] = function (event) {
        events.push(`on${type}:${this.readyState}:${event.target === xhr}`);
      };
      xhr.addEventListener(type, (event) => events.push(`listener-${type}:${xhr.readyState}:${event.type}`));
    }
    return events;
  }

  it('fires its events in order to both handler styles, with the answer in place', async () => {
    await withPage(withApiBase, async (page, window) => {
      page.bridge.answer('httpRequest', () => ({ status: 201, statusText: 'Created', headers: { 'Content-Type': 'application/json', 'X-Id': '7' }, body: '{"ok":1}' }));
      const xhr = new window.XMLHttpRequest();
      const events = recordEvents(xhr, window);
      xhr.open('POST', '/api/v1/ticket/save');
      xhr.setRequestHeader('Content-Type', 'application/json');
      xhr.setRequestHeader('x-multi', 'a');
      xhr.setRequestHeader('X-Multi', 'b');
      xhr.send('{"subject":"s"}');
      await waitFor(() => events.length === 8, { what: 'events' });
      assert.deepEqual(events, [
        'onreadystatechange:1:true', 'listener-readystatechange:1:readystatechange',
        'onreadystatechange:4:true', 'listener-readystatechange:4:readystatechange',
        'onload:4:true', 'listener-load:4:load',
        'onloadend:4:true', 'listener-loadend:4:loadend',
      ]);
      assert.deepEqual([xhr.status, xhr.statusText, xhr.responseText, xhr.response, xhr.responseURL],
                       [201, 'Created', '{"ok":1}', '{"ok":1}', API + '/api/v1/ticket/save']);
      assert.equal(xhr.getResponseHeader('x-id'), '7');
      assert.equal(xhr.getResponseHeader('missing'), null);
      assert.equal(xhr.getAllResponseHeaders(), 'Content-Type: application/json\r\nX-Id: 7');
      assert.deepEqual(page.bridge.httpRequests()[0], {
        method: 'POST', url: API + '/api/v1/ticket/save',
        headers: { 'Content-Type': 'application/json', 'x-multi': 'a, b' }, body: '{"subject":"s"}',
      });
      assert.ok(page.bridge.logs.includes(`xhr.native: ${API}/api/v1/ticket/save`));
    });
  });

});
