// The Node-style environment the web runtime gives the page: require and its modules,
// stubs, the process object and credential files.
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
