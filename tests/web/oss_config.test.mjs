// The in-memory frontend configuration script: configuration merge, URL rewriting, the
// remote document and the client update check.
import assert from 'node:assert/strict';
import { describe, it } from 'node:test';

import { deployment, plain, waitFor, withPage } from './support/harness.mjs';
import { FALLBACK_API, PLATFORM, VERSION, configApplied, isRemoteConfigRequest, ossPage } from './support/oss_page.mjs';

describe('configuration', () => {
  it('falls back to the built-in API base when the remote document is unusable', async () => {
    for (const remote of [404, new Error('offline'), '', 'not json', '[1,2]']) {
      const { options } = ossPage({ remote });
      await withPage(options, async (page, window) => {
        await configApplied(window);
        assert.equal(window.__QEVJS_OSS_CONFIG__.api, FALLBACK_API, String(remote));
        assert.equal(window.__QEVJS_API_BASE__, FALLBACK_API);
        const remoteRequests = page.pageFetches.filter((f) => isRemoteConfigRequest(f.input));
        assert.equal(remoteRequests.length, 1);
        assert.match(remoteRequests[0].input, /[?&]t=\d{13}$/);
        assert.equal(remoteRequests[0].init.method, 'GET');
      });
    }
  });

  it('points the page\'s /api requests at the API base', async () => {
    const remote = { api: 'https://p.example' };
    const cases = [
      ['/api/v1/user/info?x=1', 'https://p.example/api/v1/user/info?x=1'],
      ['/api', 'https://p.example/api'],
      ['/api?lang=en', 'https://p.example/api?lang=en'],
      ['api/v1/x', 'https://p.example/api/v1/x'],
      ['http://localhost:8000/api/v1/x?y=2#z', 'https://p.example/api/v1/x?y=2#z'],
      ['https://127.0.0.1/api', 'https://p.example/api'],
      ['https://other.example/apix', 'https://other.example/apix'],
      ['/apix/v1', '/apix/v1'],
      ['/assets/app.js', '/assets/app.js'],
      ['mailto:x@example.com', 'mailto:x@example.com'],
      ['data:,/api/v1', 'data:,/api/v1'],
    ];
    const { options, seen } = ossPage({ remote });
    await withPage(options, async (page, window) => {
      await configApplied(window);
      for (const [input, expected] of cases) {
        await window.fetch(input);
        assert.equal(page.pageFetches.at(-1).input, expected, `fetch ${input}`);
        new window.XMLHttpRequest().open('GET', input);
        assert.equal(seen.xhrOpened.at(-1), expected, `xhr ${input}`);
      }
    });
  });
});

describe('update check', () => {
  it('lists the candidate URLs with platform and version, never the token', async () => {
    const cases = [
      {
        remote: { api: 'https://p.example', update: { url: 'https://u.example/{platform}/latest?v={version}&p={platform}' } },
        storage: { auth_data: 'a b' },
        expected: [
          `https://u.example/${PLATFORM}/latest?v=${VERSION}&p=${PLATFORM}`,
          `https://p.example/api/v1/client/update?platform=${PLATFORM}&version=${VERSION}`,
          `https://p.example/api/v1/client/app/getVersion?platform=${PLATFORM}&version=${VERSION}`,
        ],
      },
      {
        remote: { api: 'https://p.example', update: { check_url: 'https://u.example/check?token=own' } },
        storage: { token: 'tok', auth_data: 'ignored' },
        expected: [
          'https://u.example/check?token=own',
          `https://p.example/api/v1/client/update?platform=${PLATFORM}&version=${VERSION}`,
          `https://p.example/api/v1/client/app/getVersion?platform=${PLATFORM}&version=${VERSION}`,
        ],
      },
      {
        remote: { api: 'https://p.example', update_url: `https://p.example/api/v1/client/update?platform={platform}&version={version}` },
        storage: {},
        expected: [
          `https://p.example/api/v1/client/update?platform=${PLATFORM}&version=${VERSION}`,
          `https://p.example/api/v1/client/app/getVersion?platform=${PLATFORM}&version=${VERSION}`,
        ],
      },
    ];
    for (const { remote, storage, expected } of cases) {
      const { options } = ossPage({ remote, storage });
      await withPage(options, async (page, window) => {
        const urls = plain(await configApplied(window));
        assert.deepEqual(urls, expected);
        assert.equal(window.__QEVJS_UPDATE_CHECK_URL__, expected[0]);
      });
    }
  });

  it('uses the first candidate with a usable payload, two seconds after the configuration', async () => {
    const remote = { api: 'https://p.example', update: { url: 'https://u.example/check' } };
    const answers = (url) => {
      if (url.startsWith('https://u.example/check')) return 404;
      if (url.includes('/client/update')) return { data: { version: '98.0.0', download_url: 'http://d.example/plain', force: true } };
      if (url.includes('/getVersion')) {
        return { data: { version: '0.0.1-generic', [PLATFORM]: { version: '99.0.0', download_url: 'https://d.example/qev-99' } } };
      }
      return 500;
    };
    const { options, seen } = ossPage({ remote, answers });
    await withPage(options, async (page, window) => {
      await waitFor(() => window.__QEVJS_UPDATE__, { what: 'update result' });
      assert.ok(page.timerDelays.includes(2000));
      assert.deepEqual(plain(window.__QEVJS_UPDATE__), { version: '99.0.0', url: 'https://d.example/qev-99', force: false, message: '' });
      const checks = page.pageFetches.map((f) => f.input).filter((url) => !isRemoteConfigRequest(url));
      assert.equal(checks.length, 3);
      checks.forEach((url, i) => {
        assert.ok(url.startsWith(window.__QEVJS_UPDATE_CHECK_URLS__[i]), url);
        assert.match(url, /[?&]_t=\d{13}$/);
      });
      assert.deepEqual(seen.confirms, ['发现新版本 99.0.0\n\n检测到新版本，是否下载更新？\n\n点击确定下载更新包。']);
      assert.deepEqual(seen.opened, [['https://d.example/qev-99', '_blank']]);
    });
    // An http address is never offered, and a forced update still waits for the user.
    const forced = (url) => (url.includes('/getVersion')
      ? { data: { version: '99.0.0', download_url: 'https://d.example/qev-99', force: true } } : answers(url));
    const refused = ossPage({ remote, answers: forced, confirm: false });
    await withPage(refused.options, async (page, window) => {
      await waitFor(() => window.__QEVJS_UPDATE__, { what: 'update result' });
      assert.equal(window.__QEVJS_UPDATE__.force, true);
      assert.equal(refused.seen.confirms.length, 1);
      assert.deepEqual(refused.seen.opened, []);
    });
  });

});
