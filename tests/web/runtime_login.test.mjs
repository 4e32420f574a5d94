// Login answers (the legacy credential and its persistence) and the subscription warm-up.
import assert from 'node:assert/strict';
import { createDecipheriv } from 'node:crypto';
import { describe, it } from 'node:test';

import { plain, sleep, waitFor, withPage } from './support/harness.mjs';

const API = 'https://panel.test';
const LOGIN = '/api/v1/passport/auth/login';

function pageOptions(extra = {}) {
  const { before, ...rest } = extra;
  return {
    url: 'http://app.test/login?next=1',
    cryptoJs: true,
    ...rest,
    before: (window, page) => {
      window.__QEVJS_API_BASE__ = API;
      if (before) {
        before(window, page);
      }
    },
  };
}

// Decrypts a legacy credential with Node's own AES, independently of the page library.
function openLegacyCredential(legacy) {
  const key = legacy.slice(-16);
  const decipher = createDecipheriv('aes-128-ecb', Buffer.from(key, 'utf8'), null);
  const plainText = Buffer.concat([decipher.update(Buffer.from(legacy.slice(0, -16), 'base64')), decipher.final()]);
  return { key, payload: JSON.parse(plainText.toString('utf8')) };
}

async function login(window, body) {
  const response = await window.fetch(LOGIN, { method: 'POST', body: '{"email":"e","password":"p"}' });
  return response.text();
}

describe('login answer adaptation', () => {
  it('adds a legacy credential that decrypts to the login with the derived key', async () => {
    await withPage(pageOptions(), async (page, window) => {
      page.bridge.answer('httpRequest', () => ({
        body: JSON.stringify({ status: 'success', data: { token: 'a1.B2-c3_', auth_data: 'Bearer server', is_admin: 1 } }),
      }));
      const adapted = JSON.parse(await login(window));
      const legacy = adapted.data.auth_data;
      assert.equal(adapted.auth_data, legacy);
      assert.equal(adapted.status, 'success');
      const { key, payload } = openLegacyCredential(legacy);
      assert.equal(key, 'a1B2c3kelpmorrow');
      assert.deepEqual(payload, { token: 'a1.B2-c3_', authorization: 'a1.B2-c3_', auth_data: 'Bearer server', is_admin: 1 });
      assert.equal(window.__nativeLastLoginLegacyAuthData, legacy);
      assert.ok(page.bridge.logs.includes('login.auth_data.generated: yes'));
      // The page's own library reads it back the same way.
      const CryptoJS = window.CryptoJS;
      const decrypted = CryptoJS.AES.decrypt(legacy.slice(0, -16), CryptoJS.enc.Utf8.parse(key),
                                             { mode: CryptoJS.mode.ECB, padding: CryptoJS.pad.Pkcs7 });
      assert.equal(JSON.parse(decrypted.toString(CryptoJS.enc.Utf8)).token, 'a1.B2-c3_');
    });
  });

  it('derives a 16-character key from the token, padded with "0" when too short', async () => {
    const cases = [
      { token: '-._~', key: 'kelpmorrowin4180' },
      { token: 'x', key: 'xkelpmorrowin418' },
      { token: 'ab!', key: 'abkelpmorrowin41' },
      { token: 'ABCDEFGHIJKLMNOPQRSTUVWXYZ', key: 'ABCDEFGHIJKLMNOP' },
    ];
    for (const { token, key } of cases) {
      await withPage(pageOptions(), async (page, window) => {
        page.bridge.answer('httpRequest', () => ({ body: JSON.stringify({ token, is_admin: true }) }));
        const adapted = JSON.parse(await login(window));
        const opened = openLegacyCredential(adapted.auth_data);
        assert.equal(opened.key, key, token);
        assert.deepEqual(opened.payload, { token, authorization: token, auth_data: token, is_admin: true });
        assert.equal(adapted.data, undefined, 'no data member is invented');
      });
    }
  });

  it('passes the answer unchanged without a token, without CryptoJS, or when it is not JSON', async () => {
    const cases = [
      { options: {}, body: '{"status":"fail","message":"wrong password"}', log: null },
      { options: { cryptoJs: false }, body: '{"data":{"token":"t"}}', log: null },
      { options: {}, body: '<html>gateway</html>', log: /^login\.auth_data\.error: / },
    ];
    for (const { options, body, log } of cases) {
      await withPage(pageOptions(options), async (page, window) => {
        page.bridge.answer('httpRequest', () => ({ status: 200, body }));
        assert.equal(await login(window), body);
        assert.equal(page.bridge.logs.some((line) => line.startsWith('login.auth_data.generated')), false);
        if (log) {
          assert.ok(page.bridge.logs.some((line) => log.test(line)), body);
        }
      });
    }
  });

  it('only the login path is adapted, also through XMLHttpRequest', async () => {
    await withPage(pageOptions(), async (page, window) => {
      const body = JSON.stringify({ data: { token: 'tok' } });
      page.bridge.answer('httpRequest', () => ({ body }));
      assert.equal(await (await window.fetch('/api/v1/passport/auth/loginx')).text(), body);
      assert.equal(await (await window.fetch('/api/v1/passport/auth/login/extra')).text(), body);
      const xhr = new window.XMLHttpRequest();
      xhr.open('POST', LOGIN + '?lang=en');
      xhr.send('{}');
      await waitFor(() => xhr.readyState === 4, { what: 'login over XHR' });
      assert.ok(JSON.parse(xhr.responseText).data.auth_data.endsWith('tokkelpmorrowin4'));
    });
  });
});

describe('login persistence', () => {
  it('stores the credentials in local storage and the credential files', async () => {
    await withPage(pageOptions(), async (page, window) => {
      page.bridge.answer('httpRequest', () => ({ body: JSON.stringify({ data: { token: 'tok', auth_data: 'Bearer srv', is_admin: 0 } }) }));
      const legacy = JSON.parse(await login(window)).data.auth_data;
      const storage = window.localStorage;
      assert.deepEqual([storage.getItem('token'), storage.getItem('auth_data'), storage.getItem('authorization'),
                        storage.getItem('is_admin')], ['tok', legacy, 'Bearer srv', '0']);
      const fs = window.require('fs');
      assert.equal(fs.readFileSync('/cfg/token'), 'tok');
      assert.equal(fs.readFileSync('/cfg/auth_data'), legacy);
      assert.ok(page.bridge.logs.includes('login.persist: token=yes auth_data=legacy authorization=yes'));
      // What the frontend stores right after logging in does not replace the login's values.
      storage.setItem('auth_data', 'frontend form');
      assert.equal(storage.getItem('auth_data'), legacy);
    });
  });

  it('without CryptoJS the token stands in for the missing credentials', async () => {
    await withPage(pageOptions({ cryptoJs: false }), async (page, window) => {
      page.bridge.answer('httpRequest', () => ({ body: JSON.stringify({ data: { token: 'tok' } }) }));
      await login(window);
      const storage = window.localStorage;
      assert.deepEqual([storage.getItem('token'), storage.getItem('auth_data'), storage.getItem('authorization'),
                        storage.getItem('is_admin')], ['tok', 'tok', 'tok', null]);
    });
  });

  it('reloads the page at "/" after the first login of a browser session only', async () => {
    await withPage(pageOptions(), async (page, window) => {
      page.bridge.answer('httpRequest', () => ({ body: JSON.stringify({ data: { token: 'tok' } }) }));
      await login(window);
      assert.equal(page.navigationAttempts, 0, 'the reload waits a moment');
      await waitFor(() => page.navigationAttempts === 1, { what: 'reload' });
      assert.equal(window.location.pathname, '/');
      assert.equal(window.location.search, '');
      assert.equal(window.sessionStorage.getItem('__nativeLoginReloaded'), '1');
      await login(window);
      await sleep(400);
      assert.equal(page.navigationAttempts, 1);
    });
    await withPage(pageOptions({ session: { __nativeLoginReloaded: '1' } }), async (page, window) => {
      page.bridge.answer('httpRequest', () => ({ body: JSON.stringify({ data: { token: 'tok' } }) }));
      await login(window);
      await sleep(400);
      assert.equal(page.navigationAttempts, 0);
      assert.equal(window.location.pathname, '/login');
    });
  });

  it('a failed login stores nothing and does not reload', async () => {
    await withPage(pageOptions(), async (page, window) => {
      page.bridge.answer('httpRequest', () => ({ status: 422, body: '{"message":"wrong password"}' }));
      await login(window);
      await sleep(300);
      assert.equal(window.localStorage.length, 0);
      assert.equal(page.navigationAttempts, 0);
    });
  });
});

describe('subscription warm-up', () => {
  const SUBSCRIBE = '/api/v1/user/getSubscribe';
  const LINK = 'https://sub.example/s/abc?token=secret';
  const TOKEN_LINK = `${API}/api/v1/client/subscribe?token=t%2B1%3D&flag=clash.meta`;

  // A page whose native side answers updateConfig and getServers as given.
  async function warmUp({ storage = {}, servers = {}, updateFails = false, body = { data: { subscribe_url: LINK } } }, check) {
    await withPage(pageOptions({ storage }), async (page, window) => {
      page.bridge.answer('httpRequest', () => ({ body: JSON.stringify(body) }));
      page.bridge.answer('getServers', () => servers);
      page.bridge.answer('updateConfig', () => {
        if (updateFails) {
          throw new Error('subscribe HTTP 404');
        }
        return true;
      });
      const text = await (await window.fetch(SUBSCRIBE)).text();
      assert.equal(text, JSON.stringify(body), 'the frontend gets the answer unchanged');
      assert.equal(page.bridge.logged('native.subscribe').length, 0, 'the warm-up waits a moment');
      await check(page, window);
    });
  }

  const settled = (page) => waitFor(() => page.bridge.logs.some((l) => /native\.subscribe\.(sync\.(ok|error|skip: no-url)|ensure\.(ok|error))/.test(l)),
                                    { what: 'warm-up' });

  it('hands a new link to the native side and remembers it', async () => {
    await warmUp({}, async (page, window) => {
      await settled(page);
      assert.deepEqual(page.bridge.calls('updateConfig').map((m) => m.args), [[LINK]]);
      assert.equal(window.localStorage.getItem('__nativeLastSubscribeUrl'), LINK);
      assert.deepEqual(page.bridge.logged('native.subscribe'), ['native.subscribe.sync.start', 'native.subscribe.sync.ok']);
    });
  });

  it('with a stored token the link is the panel subscription of that token', async () => {
    await warmUp({ storage: { token: 't+1=' }, body: { data: { subscribeUrl: LINK } } }, async (page) => {
      await settled(page);
      assert.deepEqual(page.bridge.calls('updateConfig').map((m) => m.args), [[TOKEN_LINK]]);
    });
  });

  it('an unchanged link only makes sure the core has servers', async () => {
    await warmUp({ storage: { __nativeLastSubscribeUrl: LINK }, servers: { 'HK-01': { type: 'Shadowsocks' } } }, async (page) => {
      await settled(page);
      assert.equal(page.bridge.calls('updateConfig').length, 0);
      assert.deepEqual(page.bridge.logged('native.subscribe'), ['native.subscribe.sync.skip: unchanged', 'native.subscribe.ensure.ok']);
    });
  });

  it('an unchanged link is applied again when the core has no servers', async () => {
    await warmUp({ storage: { __nativeLastSubscribeUrl: LINK }, servers: false }, async (page) => {
      await settled(page);
      assert.deepEqual(page.bridge.calls('updateConfig').map((m) => m.args), [[LINK]]);
      assert.deepEqual(page.bridge.logged('native.subscribe'), [
        'native.subscribe.sync.skip: unchanged', 'native.subscribe.ensure.empty', 'native.subscribe.sync.ok',
      ]);
    });
  });

  it('failures are logged and the link is not remembered', async () => {
    await warmUp({ updateFails: true }, async (page, window) => {
      await settled(page);
      assert.deepEqual(page.bridge.logged('native.subscribe'), ['native.subscribe.sync.start', 'native.subscribe.sync.error: subscribe HTTP 404']);
      assert.equal(window.localStorage.getItem('__nativeLastSubscribeUrl'), null);
    });
    await warmUp({ storage: { __nativeLastSubscribeUrl: LINK }, servers: {}, updateFails: true }, async (page) => {
      await settled(page);
      assert.deepEqual(page.bridge.logged('native.subscribe').slice(-1), ['native.subscribe.ensure.error: subscribe HTTP 404']);
    });
  });

  it('runs once per page and skips an answer without a link', async () => {
    await warmUp({ body: { data: { plan_id: 1 } } }, async (page, window) => {
      await settled(page);
      assert.deepEqual(page.bridge.logged('native.subscribe'), ['native.subscribe.sync.skip: no-url']);
      await window.fetch(SUBSCRIBE);
      await sleep(400);
      assert.equal(page.bridge.logged('native.subscribe').length, 1);
      assert.equal(page.bridge.calls('updateConfig').length, 0);
      assert.equal(window.__nativeSubscribeSyncStarted, true);
    });
  });
});
