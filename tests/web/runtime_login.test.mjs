// Login answers (the legacy credential and its persistence) and the subscription warm-up.
import assert from 'node:assert/strict';
import { describe, it } from 'node:test';

import { plain, sleep, waitFor, withPage } from './support/harness.mjs';
import { API, LOGIN, login, openLegacyCredential, pageOptions } from './support/login_page.mjs';

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

});
