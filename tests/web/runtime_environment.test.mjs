// The Node-style environment the web runtime gives the page: require and its modules,
// stubs, the process object, credential files and the request emulation.
import assert from 'node:assert/strict';
import { describe, it } from 'node:test';

import { deployment, plain, settle, waitFor, withPage } from './support/harness.mjs';

const API = 'https://panel.test';
const withApiBase = { before: (window) => { window.__QEVJS_API_BASE__ = API + '/'; } };

describe('require', () => {
  it('electron is never mistaken for a promise and answers unknown members with stubs', async () => {
    await withPage({}, async (page, window) => {
      const electron = window.require('electron');
      assert.equal(electron.then, undefined);
      assert.equal(await electron, electron);
      assert.equal(electron.remote.then, undefined);
      const unknown = electron.powerMonitor;
      assert.equal(typeof unknown, 'function');
      assert.equal(unknown.name, 'electron.powerMonitor');
      assert.equal(electron.powerMonitor, unknown, 'a created stub is kept');
      assert.ok(page.bridge.logs.includes('electron.get: powerMonitor'));
      assert.equal(electron.remote.screen.name, 'electron.remote.screen');
      assert.ok(page.bridge.logs.includes('electron.remote.get: screen'));
      assert.equal(electron.default, electron);
      assert.equal(electron.__esModule, true);
    });
  });

  it('any chain of reads, calls and constructions on a stub works', async () => {
    await withPage({}, async (page, window) => {
      const native = window.require('some-native-addon');
      assert.ok(page.bridge.logs.includes('require.stub: some-native-addon'));
      const chained = native().devices.list('usb').first.open();
      assert.equal(typeof chained, 'function');
      assert.equal(chained.name, 'some-native-addon.devices.list.first.open');
      assert.equal(native.a.b.c.name, 'some-native-addon.a.b.c');
      assert.equal(native.on('ready', () => {}).once('x').send, native.send);
      assert.equal(await native.deep.value, native.deep.value);
      assert.equal(String(native.anything), '');
      assert.equal(`${native}`, '');
      assert.equal(typeof new native.Window({}), 'function');
      assert.deepEqual(plain(native.buildFromTemplate([1])), { template: [1] });
      assert.deepEqual(plain(native.getAllWindows()), []);
      assert.equal(native.getPath(), '/');
      assert.equal(native.createFromPath(undefined), '');
      assert.equal(native.default, native);
    });
  });

  it('builds each module once and marks it as an ES module', async () => {
    await withPage({}, (page, window) => {
      assert.equal(window.require('path'), window.require('path'));
      const fs = window.require('fs');
      assert.equal(fs.default, fs);
      assert.equal(fs.__esModule, true);
      assert.equal(page.bridge.logged('require: fs').length, 1);
      assert.equal(window.require('module').prototype.require, window.require);
    });
  });

  it('leaves a page that brings its own require alone', async () => {
    const own = () => 'own';
    await withPage({ before: (window) => { window.require = own; } }, (page, window) => {
      assert.equal(window.require, own);
    });
  });

  it('path joins with single slashes and splits at the last one', async () => {
    await withPage({}, (page, window) => {
      const path = window.require('path');
      const cases = [
        [path.join('/a/', '/b//c', 'd'), '/a/b/c/d'],
        [path.resolve('x', 'y'), 'x/y'],
        [path.dirname('/a/b/c.txt'), '/a/b'],
        [path.dirname('/top'), '/'],
        [path.dirname('plain'), '/'],
        [path.basename('/a/b/c.txt'), 'c.txt'],
        [path.basename('plain'), 'plain'],
      ];
      for (const [actual, expected] of cases) {
        assert.equal(actual, expected);
      }
    });
  });

  it('js-yaml, child_process and express are inert but well-formed', async () => {
    await withPage({}, async (page, window) => {
      const yaml = window.require('js-yaml');
      assert.deepEqual(plain(yaml.safeLoad('a: 1')), {});
      assert.equal(yaml.dump(null), '');
      assert.equal(window.require('child_process').execFileSync('ls'), '');
      const express = window.require('express');
      const app = express();
      assert.equal(app.use(express.static('/x')).get('/', () => {}), app);
      let listening = false;
      const server = app.listen(8080, '127.0.0.1', () => { listening = true; });
      assert.equal(listening, false, 'the callback comes later');
      await waitFor(() => listening, { what: 'listen callback' });
      assert.equal(typeof server.close, 'function');
      let nextCalled = false;
      express.static('/x')({}, {}, () => { nextCalled = true; });
      assert.ok(nextCalled);
    });
  });

  it('crypto-js is the page library when present, an inert stand-in otherwise', async () => {
    await withPage({ cryptoJs: true }, (page, window) => {
      assert.equal(window.require('crypto-js'), window.CryptoJS);
    });
    await withPage({}, (page, window) => {
      const crypto = window.require('crypto-js');
      assert.ok(page.bridge.logs.includes('crypto-js missing'));
      assert.equal(crypto.AES.encrypt('secret', 'k').toString(), 'secret');
      assert.equal(crypto.enc.Utf8.stringify(crypto.enc.Base64.parse('text')), 'text');
      assert.equal(String(crypto.SHA256('x')), 'x');
    });
  });
});

describe('process and electron.remote', () => {
  it('gives the page a process for this platform with a home folder', async () => {
    await withPage({}, (page, window) => {
      assert.equal(window.process.platform, deployment.platform);
      assert.equal(window.process.env.HOME, deployment.defaultHome);
      assert.equal(window.process.cwd(), '/');
      const app = window.require('electron').remote.app;
      assert.equal(app.getPath('home'), deployment.defaultHome);
      assert.equal(app.getPath('userData'), deployment.defaultHome + deployment.userDataDir);
      assert.equal(app.getPath('temp'), '/');
      assert.equal(app.getAppPath(), '/');
    });
  });

  it('completes a process object the page brought', async () => {
    await withPage({ before: (window) => { window.process = { platform: 'page', env: { LANG: 'C' } }; } },
                   (page, window) => {
      assert.equal(window.process.platform, 'page');
      assert.equal(window.process.env.LANG, 'C');
      assert.equal(window.process.env.HOME, deployment.defaultHome);
    });
    await withPage({ before: (window) => { window.process = { env: { HOME: '/srv/me' } }; } }, (page, window) => {
      assert.equal(window.require('electron').remote.app.getPath('userData'), '/srv/me' + deployment.userDataDir);
    });
  });

  it('process.nextTick runs later with its arguments', async () => {
    await withPage({}, async (page, window) => {
      const seen = [];
      window.process.nextTick((a, b) => seen.push(a + b), 1, 2);
      assert.deepEqual(seen, []);
      await waitFor(() => seen.length === 1, { what: 'nextTick' });
      assert.deepEqual(seen, [3]);
    });
  });

  it('getGlobal hands out the shell globals and creates missing ones once', async () => {
    await withPage({}, (page, window) => {
      const remote = window.require('electron').remote;
      const globals = remote.getGlobal('');
      assert.equal(globals, window.__electronGlobals);
      assert.equal(globals.isQuit, false);
      assert.equal(globals.win.isMinimized(), false);
      const created = remote.getGlobal('sharedState');
      assert.deepEqual(plain(created), {});
      assert.equal(remote.getGlobal('sharedState'), created);
      assert.ok(page.bridge.logs.includes('electron.remote.getGlobal: sharedState'));
      const tray = new (window.require('electron').Tray)('icon.png');
      assert.equal(tray.setToolTip('x'), undefined);
    });
  });
});

describe('credential files', () => {
  it('the token file round-trips through local storage', async () => {
    await withPage({}, (page, window) => {
      const fs = window.require('fs');
      assert.throws(() => fs.readFileSync('/x/token'), { message: 'ENOENT: no such file or directory, open /x/token' });
      assert.equal(fs.existsSync('/x/token'), false);
      fs.writeFileSync('/x/token', 'abc');
      assert.equal(fs.readFileSync('/x/token'), 'abc');
      assert.equal(fs.existsSync('C:\\Users\\me\\TOKEN'), true);
      assert.equal(window.localStorage.getItem('token'), 'abc');
      fs.writeFileSync('/x/token', null);
      assert.equal(window.localStorage.getItem('token'), '');
      assert.equal(fs.existsSync('/x/token'), false);
    });
  });

  it('auth_data reads the file, then stored auth_data, then the stored authorization', async () => {
    const cases = [
      { storage: {}, expected: null },
      { storage: { authorization: 'Bearer a' }, expected: 'Bearer a' },
      { storage: { authorization: 'Bearer a', auth_data: 'legacy' }, expected: 'legacy' },
    ];
    for (const { storage, expected } of cases) {
      await withPage({ storage }, (page, window) => {
        const fs = window.require('fs');
        if (expected === null) {
          assert.throws(() => fs.readFileSync('auth_data'), /ENOENT/);
        } else {
          assert.equal(fs.readFileSync('/data/auth_data'), expected);
        }
      });
    }
    await withPage({ storage: { auth_data: 'stored' } }, (page, window) => {
      const fs = window.require('fs');
      fs.writeFileSync('\\data\\Auth_Data', 'written');
      assert.equal(fs.readFileSync('/auth_data'), 'written');
      assert.equal(window.localStorage.getItem('auth_data'), 'written');
      assert.equal(window.localStorage.getItem('authorization'), 'written');
    });
  });

  it('other paths are neither stored nor found', async () => {
    await withPage({}, (page, window) => {
      const fs = window.require('fs');
      for (const path of ['/x/token.bak', '/x/token/', '/x/config.yaml', 'tokens']) {
        fs.writeFileSync(path, 'ignored');
        assert.equal(fs.existsSync(path), false, path);
        assert.equal(fs.readFileSync(path), '', path);
      }
      assert.equal(window.localStorage.length, 0);
      assert.equal(fs.watch('/x').close(), undefined);
    });
  });
});

describe('request emulation', () => {
  it('http.get sends a GET by itself and streams the body once, then ends', async () => {
    await withPage(withApiBase, async (page, window) => {
      page.bridge.answer('httpRequest', () => ({ status: 201, headers: { 'X-A': '1' }, body: '{"ok":true}' }));
      const events = [];
      window.require('https').get('/api/v1/user/info', (response) => {
        events.push(['status', response.statusCode, response.headers['X-A']]);
        response.on('end', () => events.push(['end']));
        response.on('data', (chunk) => events.push(['data', chunk]));
      });
      await waitFor(() => events.length === 3, { what: 'response events' });
      assert.deepEqual(events, [['status', 201, '1'], ['data', '{"ok":true}'], ['end']]);
      assert.deepEqual(page.bridge.httpRequests(), [{ method: 'GET', url: API + '/api/v1/user/info', headers: {}, body: null }]);
      assert.ok(page.bridge.logs.includes('node-http.native: ' + API + '/api/v1/user/info'));
    });
  });

  it('http.request builds the URL from its parts and sends what was written', async () => {
    await withPage(withApiBase, async (page, window) => {
      page.bridge.answer('httpRequest', () => ({ body: 'done' }));
      let status = 0;
      const request = window.require('http').request(
        { method: 'post', hostname: '127.0.0.1', port: 33212, path: 'configs', headers: { 'Content-Type': 'application/json' } },
        (response) => { status = response.statusCode; });
      request.write('{"mode":');
      request.end('"rule"}');
      request.end();
      await waitFor(() => status, { what: 'callback' });
      assert.equal(status, 200);
      assert.deepEqual(page.bridge.httpRequests(), [{
        method: 'POST', url: 'http://127.0.0.1:33212/configs', headers: { 'Content-Type': 'application/json' },
        body: '{"mode":"rule"}',
      }]);
    });
  });

  it('a failed node request reaches the error listener; destroy runs the timeout handler', async () => {
    await withPage(withApiBase, async (page, window) => {
      page.bridge.answer('httpRequest', () => { throw new Error('invalid request'); });
      const errors = [];
      let timedOut = false;
      const request = window.require('http').get({ host: 'example.com:8080', port: 1, path: '/x' }, () => {});
      request.on('error', (error) => errors.push(error.message));
      request.setTimeout(1000, () => { timedOut = true; });
      await waitFor(() => errors.length, { what: 'error listener' });
      assert.deepEqual(errors, ['invalid request']);
      assert.equal(page.bridge.httpRequests()[0].url, 'http://example.com:8080/x');
      request.destroy();
      assert.ok(timedOut);
    });
  });

  it('request calls back with the response and the body, or the error', async () => {
    await withPage(withApiBase, async (page, window) => {
      page.bridge.answer('httpRequest', (args) => {
        if (args[0].url.endsWith('/broken')) {
          throw new Error('offline');
        }
        return { status: 404, headers: { a: 'b' }, body: '{"n":1}' };
      });
      const request = window.require('request');
      const results = [];
      request('/api/v1/guest/comm/config', { json: true }, (error, response, body) => results.push([error, response, body]));
      request({ uri: 'https://example.com/broken' }, (error) => results.push([error.message]));
      await waitFor(() => results.length === 2, { what: 'callbacks' });
      const ok = results.find((r) => r.length === 3);
      assert.equal(ok[0], null);
      assert.deepEqual(plain(ok[1]), { statusCode: 404, headers: { a: 'b' } });
      assert.deepEqual(plain(ok[2]), { n: 1 });
      assert.ok(results.some((r) => r[0] === 'offline'));
      assert.deepEqual(plain(request.initParams('https://x', { a: 1 })), { a: 1, uri: 'https://x' });
      assert.ok(page.bridge.logs.includes('request.native: ' + API + '/api/v1/guest/comm/config'));
    });
  });

  it('request-promise serialises JSON bodies and resolves the body or the full response', async () => {
    await withPage(withApiBase, async (page, window) => {
      page.bridge.answer('httpRequest', (args) => ({ status: 200, statusText: 'OK', headers: {}, body: args[0].url.endsWith('text') ? 'not json' : '{"data":[1]}' }));
      const rp = window.require('request-promise');
      assert.deepEqual(plain(await rp.post({ url: '/api/v1/a', json: true, body: { email: 'e' } })), { data: [1] });
      const full = await rp({ url: '/api/v1/text', json: true, resolveWithFullResponse: true });
      assert.deepEqual(plain(full), { statusCode: 200, statusMessage: 'OK', headers: {}, body: 'not json' });
      assert.equal(await window.require('request-promise-native')('https://example.com/plain'), '{"data":[1]}');
      const withDefaults = rp.defaults({ method: 'PUT', headers: { 'content-type': 'text/plain' } });
      await withDefaults({ url: '/api/v1/b', json: true, body: [1, 2] });
      assert.deepEqual(plain(rp.jar()), {});
      const sent = page.bridge.httpRequests();
      assert.deepEqual(sent[0], { method: 'POST', url: API + '/api/v1/a', headers: { 'Content-Type': 'application/json' }, body: '{"email":"e"}' });
      assert.deepEqual(sent[3], { method: 'PUT', url: API + '/api/v1/b', headers: { 'content-type': 'text/plain' }, body: '[1,2]' });
      assert.ok(page.bridge.logs.includes('request-promise.native: ' + API + '/api/v1/a'));
    });
  });
});

describe('storage credentials after a login', () => {
  it('credentials remembered from the login outrank what the frontend stores', async () => {
    await withPage({}, async (page, window) => {
      window.__nativeLastLoginLegacyAuthData = 'legacy';
      window.__nativeLastLoginToken = 'tok';
      const storage = window.localStorage;
      storage.setItem('auth_data', 'frontend');
      storage.setItem('authorization', 'frontend');
      storage.setItem('token', 'frontend');
      storage.setItem('theme', 'dark');
      assert.deepEqual([storage.getItem('auth_data'), storage.getItem('authorization'), storage.getItem('token'),
                        storage.getItem('theme')], ['legacy', 'tok', 'tok', 'dark']);
      window.__nativeLastLoginServerAuthData = 'Bearer server';
      storage.setItem('authorization', 'frontend');
      assert.equal(storage.getItem('authorization'), 'Bearer server');
      await settle(1);
    });
  });
});
