// The frontend's pure logic: traffic and date formatting, panel answers of both generations,
// error wording, the node list and latency answers, the stored credential.
import assert from 'node:assert/strict';
import { describe, it } from 'node:test';

import { nativeErrorMessage, panelFailureMessage, say } from '../../../frontend/js/errors.js';
import { expiryState, formatBytes, formatDate, latencyGrade, resetState, trafficSummary } from '../../../frontend/js/format.js';
import { translator } from '../../../frontend/js/i18n.js';
import { login, readPanelAnswer } from '../../../frontend/js/panel.js';
import { delayTestUrl, forEachLimited, nodeListFrom, readDelayAnswer, selectorGroups } from '../../../frontend/js/servers.js';
import { adoptLogin, clearSession, hasSession, sessionCredential } from '../../../frontend/js/session.js';

class MemoryStorage {
  constructor(values = {}) {
    this.values = new Map(Object.entries(values));
  }
  getItem(key) {
    return this.values.has(key) ? this.values.get(key) : null;
  }
  setItem(key, value) {
    this.values.set(key, String(value));
  }
  removeItem(key) {
    this.values.delete(key);
  }
}

describe('traffic and dates', () => {
  const bytes = [
    [0, '0 B'], [-5, '0 B'], [null, '0 B'], ['abc', '0 B'], [1, '1 B'], [1023, '1023 B'], [1024, '1 KB'],
    [1536, '1.5 KB'], [1048575, '1 MB'], [10 * 1024 * 1024, '10 MB'], [123.4 * 1024 * 1024, '123 MB'],
    ['2512555868', '2.34 GB'], [107374182400, '100 GB'], [1.5 * 1024 ** 4, '1.5 TB'],
  ];
  for (const [input, expected] of bytes) {
    it(`${JSON.stringify(input)} bytes read ${expected}`, () => assert.equal(formatBytes(input), expected));
  }

  it('tells never, expired and the days left, counting a started day as one', () => {
    const now = Date.UTC(2026, 11, 1, 12, 0, 0);
    assert.deepEqual(expiryState(null, now), { kind: 'never' });
    assert.deepEqual(expiryState(0, now), { kind: 'never' });
    assert.deepEqual(expiryState(now / 1000 - 1, now, 'UTC'), { kind: 'expired', date: '2026-12-01' });
    assert.deepEqual(expiryState(now / 1000 + 3600, now, 'UTC'), { kind: 'date', date: '2026-12-01', days: 1 });
    assert.deepEqual(expiryState(now / 1000 + 10 * 86400, now, 'UTC'), { kind: 'date', date: '2026-12-11', days: 10 });
  });

});

describe('panel answers', () => {
  const cases = [
    ['v1 success', 200, '{"data":{"token":"t"}}', { ok: true, data: { token: 't' } }],
    ['v2 success', 200, '{"status":"success","message":"操作成功","data":{"a":1},"error":null}', { ok: true, data: { a: 1 } }],
    ['success with a false payload', 200, '{"data":false}', { ok: true, data: false }],
    ['v1 business error', 500, '{"message":"邮箱或密码错误"}', { ok: false, kind: 'panel', status: 500, message: '邮箱或密码错误' }],
    ['v2 fail envelope', 400, '{"status":"fail","message":"邮箱或密码错误","data":null,"error":null}',
      { ok: false, kind: 'panel', status: 400, message: '邮箱或密码错误' }],
    ['v2 fail envelope with 200', 200, '{"status":"fail","message":"已停用","data":null}', { ok: false, kind: 'panel', status: 200, message: '已停用' }],
    ['too many attempts', 429, '{"status":"fail","message":"密码错误次数过多，请 60 分钟后再试"}',
      { ok: false, kind: 'panel', status: 429, message: '密码错误次数过多，请 60 分钟后再试' }],
    ['validation without message', 422, '{"errors":{"email":["邮箱格式不正确"]}}', { ok: false, kind: 'panel', status: 422, message: '邮箱格式不正确' }],
    ['logged out (v1)', 403, '{"message":"未登录或登陆已过期"}', { ok: false, kind: 'auth', status: 403, message: '未登录或登陆已过期' }],
    ['logged out without body', 401, '', { ok: false, kind: 'auth', status: 401, message: '' }],
    ['gateway page', 502, '<html>Bad Gateway</html>', { ok: false, kind: 'http', status: 502, message: '' }],
    ['JSON error without text', 500, '{"error":true}', { ok: false, kind: 'http', status: 500, message: '' }],
    ['empty success', 200, '', { ok: false, kind: 'format', status: 200, message: '' }],
    ['success without data', 200, '{"status":"success"}', { ok: false, kind: 'format', status: 200, message: '' }],
  ];
  for (const [name, status, body, expected] of cases) {
    it(name, () => assert.deepEqual(readPanelAnswer(status, body), expected));
  }

  it('a login refused with 403 and a reason is a refusal, not a lost session', async () => {
    const fetchFn = async () => new Response('{"message":"该账户已被停止使用"}', { status: 403 });
    assert.deepEqual(await login(fetchFn, 'a@b.c', 'password1'), { ok: false, kind: 'panel', status: 403, message: '该账户已被停止使用' });
  });

  it('sends the login as JSON with the language the panel should answer in', async () => {
    const seen = [];
    const fetchFn = async (path, init) => {
      seen.push({ path, init });
      return new Response('{"data":{"token":"t","auth_data":"a"}}', { status: 200 });
    };
    assert.deepEqual(await login(fetchFn, 'a@b.c', 'secret-pw', 'en'), { ok: true, data: { token: 't', authData: 'a', isAdmin: undefined } });
    assert.equal(seen[0].path, '/api/v1/passport/auth/login');
    assert.equal(seen[0].init.method, 'POST');
    assert.deepEqual(JSON.parse(seen[0].init.body), { email: 'a@b.c', password: 'secret-pw' });
    assert.equal(seen[0].init.headers['Content-Type'], 'application/json');
    assert.equal(seen[0].init.headers['Content-Language'], 'en-US');
  });

});

describe('errors in words', () => {
  const zh = translator('zh-CN');
  const en = translator('en');
  const native = [
    ['NODE_UNAVAILABLE', 'The selected node is unavailable'],
    ['mihomo start timeout', 'The proxy core did not start in time.'],
    ['mihomo not running', 'The proxy core is not running.'],
    ['mihomo restart timeout after TUN change', 'The proxy core did not restart in time after the TUN change.'],
    ['missing subscribe URL', 'No subscription yet. Please try again in a moment.'],
    ['subscribe HTTP 403', 'The subscription download failed (HTTP 403).'],
    ["Couldn't connect to server", 'Cannot reach the server. Check your network and try again.'],
    ['native message handler nativeBridge unavailable', 'This only works inside the QEV app.'],
    ['disk on fire', 'Something went wrong: disk on fire'],
  ];
  for (const [text, expected] of native) {
    it(`native "${text}"`, () => assert.equal(say(en, nativeErrorMessage(new Error(text))), expected));
  }

  it('keeps the panel\'s own words and explains the rest', () => {
    assert.equal(say(zh, panelFailureMessage({ kind: 'panel', status: 500, message: '邮箱或密码错误' })), '邮箱或密码错误');
    assert.equal(say(zh, panelFailureMessage({ kind: 'network', status: 0, message: 'x' })), '无法连接服务器，请检查网络后重试。');
    assert.equal(say(en, panelFailureMessage({ kind: 'format', status: 200 })), 'The server sent an unexpected reply (HTTP 200).');
    assert.equal(say(en, panelFailureMessage({ kind: 'http', status: 502 })), 'Server error (HTTP 502).');
    assert.equal(say(en, panelFailureMessage({ kind: 'auth', status: 403, message: '' })), 'Your session has expired. Please sign in again.');
  });

});

describe('nodes', () => {
  it('lists the selector group\'s members in order with type and last delay', () => {
    const table = {
      SELECT: { type: 'Selector', now: 'B', all: ['A', 'B', 'Auto', 'A', '', 42, 'Missing'] },
      A: { type: 'Vmess', history: [{ delay: 10 }, { delay: 120 }] },
      B: { type: 'Trojan', history: [{ delay: 0 }] },
      Auto: { type: 'URLTest', history: [] },
    };
    assert.deepEqual(nodeListFrom(table), {
      nodes: [
        { name: 'A', type: 'Vmess', isGroup: false, delay: 120 },
        { name: 'B', type: 'Trojan', isGroup: false, delay: null },
        { name: 'Auto', type: 'URLTest', isGroup: true, delay: null },
        { name: 'Missing', type: '', isGroup: false, delay: null },
      ],
      current: 'B',
    });
    assert.deepEqual(nodeListFrom(table, 'A'), { nodes: [], current: '' }, 'not a group');
  });

  it('offers the main group first, then every other selector but its original and GLOBAL', () => {
    const table = {
      Site: { type: 'selector', now: 'A', all: ['A', 'B'] },
      GLOBAL: { type: 'Selector', now: 'A', all: ['A'] },
      Product: { type: 'Selector', now: 'B', all: ['A', 'B'] },
      SELECT: { type: 'Selector', now: 'B', all: ['A', 'B'], aliasOf: 'Product' },
      Auto: { type: 'URLTest', now: 'A', all: ['A', 'B'] },
      A: { type: 'Vmess' },
    };
    assert.deepEqual(selectorGroups(table), ['SELECT', 'Site']);
    assert.deepEqual(selectorGroups({ Site: table.Site }), ['Site']);
    assert.deepEqual(selectorGroups(false), []);
  });

  it('measures with at most the given number of tests at a time and reports every result', async () => {
    let running = 0;
    let peak = 0;
    const results = [];
    await forEachLimited([1, 2, 3, 4, 5, 6, 7], 3, async (n) => {
      running += 1;
      peak = Math.max(peak, running);
      await new Promise((done) => setTimeout(done, 5 * (n % 3)));
      running -= 1;
      return n * 10;
    }, (n, result) => results.push([n, result]));
    assert.equal(peak, 3);
    assert.deepEqual(results.sort((a, b) => a[0] - b[0]), [[1, 10], [2, 20], [3, 30], [4, 40], [5, 50], [6, 60], [7, 70]]);
  });
});

describe('the stored session', () => {

  it('fills only what the runtime did not store and clears everything at sign-out', () => {
    const storage = new MemoryStorage({ token: 'runtime-token', qev: 'kept', __nativeLastSubscribeUrl: 'link' });
    adoptLogin(storage, { token: 'page-token', authData: 'jwt', isAdmin: 0 });
    assert.deepEqual(Object.fromEntries(storage.values), {
      token: 'runtime-token', qev: 'kept', __nativeLastSubscribeUrl: 'link', auth_data: 'jwt', authorization: 'jwt', is_admin: '0',
    });
    assert.equal(hasSession(storage), true);
    clearSession(storage);
    assert.deepEqual(Object.fromEntries(storage.values), { qev: 'kept', __nativeLastSubscribeUrl: 'link' });
    assert.equal(hasSession(storage), false);
  });

});
