// The in-memory frontend configuration script: configuration merge, URL rewriting, the
// remote document and the client update check.
import assert from 'node:assert/strict';
import { describe, it } from 'node:test';

import { deployment, plain, waitFor, withPage } from './support/harness.mjs';

const VERSION = encodeURIComponent(deployment.clientVersion);
const PLATFORM = deployment.platform;
const FALLBACK_API = deployment.panelApiBase.replace(/\/+$/, '');

function isRemoteConfigRequest(url) {
  return url.startsWith(deployment.remoteConfigUrl + (deployment.remoteConfigUrl.includes('?') ? '&t=' : '?t='));
}

// A page with only the configuration script; `answers(url)` plays every server it asks:
// a string is a 200 body, a number a bodiless status, an Error a transport failure.
function ossPage({ remote = 404, answers = () => 404, storage = {}, confirm = true, before = null } = {}) {
  const seen = { confirms: [], opened: [], xhrOpened: [] };
  return {
    seen,
    options: {
      scripts: ['ossConfig'],
      storage,
      timerCap: 0,
      before: (window, page) => {
        page.pageFetchAnswer = (url) => {
          const answer = isRemoteConfigRequest(url) ? (typeof remote === 'function' ? remote(url) : remote) : answers(url);
          if (answer instanceof Error) {
            throw answer;
          }
          return typeof answer === 'number' ? new Response(null, { status: answer })
                                            : new Response(typeof answer === 'string' ? answer : JSON.stringify(answer));
        };
        window.confirm = (text) => { seen.confirms.push(text); return confirm; };
        window.open = (...args) => { seen.opened.push(args); return null; };
        const realOpen = window.XMLHttpRequest.prototype.open;
        window.XMLHttpRequest.prototype.open = function (method, url, ...rest) {
          seen.xhrOpened.push(url);
          return realOpen.call(this, method, url, ...rest);
        };
        if (before) {
          before(window, page);
        }
      },
    },
  };
}

const configApplied = (window) => waitFor(() => window.__QEVJS_UPDATE_CHECK_URLS__, { what: 'configuration' });

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

  it('merges the remote document over the built-in configuration', async () => {
    const remote = {
      api_base: 'https://p2.example//', base_url: 'https://ignored.example',
      update: { check_url: 'https://u.example/check', dmg: 'https://d.example/qev.dmg' }, version: '6.0.0', extra: { a: 1 },
    };
    const { options } = ossPage({ remote });
    await withPage(options, async (page, window) => {
      await configApplied(window);
      assert.deepEqual(plain(window.__QEVJS_OSS_CONFIG__), {
        ...remote, api: 'https://p2.example', update_url: 'https://u.example/check', download_url: 'https://d.example/qev.dmg',
      });
      assert.equal(window.__QEVJS_API_BASE__, 'https://p2.example');
    });
    const { options: withApi } = ossPage({ remote: { api: 'https://a.example/', api_base: 'https://b.example', update: { url: 'https://u', download_url: 'https://d' } } });
    await withPage(withApi, async (page, window) => {
      await configApplied(window);
      const config = window.__QEVJS_OSS_CONFIG__;
      assert.deepEqual([config.api, config.update_url, config.download_url], ['https://a.example', 'https://u', 'https://d']);
    });
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
  it('lists the candidate URLs with platform, version and token', async () => {
    const cases = [
      {
        remote: { api: 'https://p.example', update: { url: 'https://u.example/{platform}/latest?v={version}&p={platform}' } },
        storage: { auth_data: 'a b' },
        expected: [
          `https://u.example/${PLATFORM}/latest?v=${VERSION}&p=${PLATFORM}&token=a%20b`,
          `https://p.example/api/v1/client/update?platform=${PLATFORM}&version=${VERSION}`,
          `https://p.example/api/v1/client/app/getVersion?platform=${PLATFORM}&version=${VERSION}&token=a%20b`,
        ],
      },
      {
        remote: { api: 'https://p.example', update: { check_url: 'https://u.example/check?token=own' } },
        storage: { token: 'tok', auth_data: 'ignored' },
        expected: [
          'https://u.example/check?token=own',
          `https://p.example/api/v1/client/update?platform=${PLATFORM}&version=${VERSION}`,
          `https://p.example/api/v1/client/app/getVersion?platform=${PLATFORM}&version=${VERSION}&token=tok`,
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
      if (url.includes('/client/update')) return { data: { message: 'no version here' } };
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
  });

  it('offers every version other than this client\'s, and forces when told', async () => {
    const cases = [
      { payload: { version: deployment.clientVersion, url: 'https://d' }, confirms: 0, opened: 0 },
      { payload: { latest_version: deployment.clientVersion + '.0', downloadUrl: 'https://d' }, confirms: 0, opened: 0 },
      { payload: { app_version: '0.0.1', link: 'https://d', note: '回退版本' }, confirms: 1, opened: 0, confirm: false,
        text: '发现新版本 0.0.1\n\n回退版本\n\n点击确定下载更新包。' },
      { payload: { result: { client_version: '999.1-beta', darwin_download_url: 'https://d' } }, confirms: 1, opened: 1 },
      { payload: { update: { version: '999.2', file_url: 'https://d', force_update: true } }, confirms: 0, opened: 1 },
    ];
    for (const { payload, confirms, opened, confirm = true, text } of cases) {
      const remote = { api: 'https://p.example' };
      const { options, seen } = ossPage({ remote, confirm, answers: (url) => (url.includes('/client/update') ? payload : 404) });
      await withPage(options, async (page, window) => {
        await waitFor(() => window.__QEVJS_UPDATE__, { what: JSON.stringify(payload) });
        assert.equal(window.__QEVJS_UPDATE__.url, 'https://d');
        assert.equal(seen.confirms.length, confirms, JSON.stringify(payload));
        assert.equal(seen.opened.length, opened, JSON.stringify(payload));
        if (text) {
          assert.equal(seen.confirms[0], text);
        }
      });
    }
  });

  it('falls back to the configuration\'s version and download address', async () => {
    const remote = { api: 'https://p.example', version: '42.0', download_url: 'https://d.example/cfg', force_update: true };
    const { options, seen } = ossPage({ remote, answers: (url) => (url.includes('/client/update') ? { result: { changelog: 'c' } } : 404) });
    await withPage(options, async (page, window) => {
      await waitFor(() => window.__QEVJS_UPDATE__, { what: 'update result' });
      assert.deepEqual(plain(window.__QEVJS_UPDATE__), { version: '42.0', url: 'https://d.example/cfg', force: true, message: 'c' });
      assert.deepEqual(seen.opened, [['https://d.example/cfg', '_blank']]);
    });
  });

  it('gives up quietly when no candidate answers usefully', async () => {
    const { options, seen } = ossPage({ remote: { api: 'https://p.example' }, answers: (url) => (url.includes('getVersion') ? new Error('offline') : '') });
    await withPage(options, async (page, window) => {
      await configApplied(window);
      await waitFor(() => page.pageFetches.length === 3, { what: 'both candidates' });
      await new Promise((done) => setTimeout(done, 50));
      assert.equal(window.__QEVJS_UPDATE__, undefined);
      assert.deepEqual(seen.confirms, []);
    });
  });
});

describe('with the web runtime', () => {
  it('the remote document travels through the bridge and its API base serves the runtime', async () => {
    const { options } = ossPage();
    await withPage({ ...options, scripts: ['runtime', 'ossConfig'] }, async (page, window) => {
      page.bridge.answer('openExternal', () => true);
      page.bridge.answer('httpRequest', ([request]) => {
        if (isRemoteConfigRequest(request.url)) {
          return { status: 200, body: JSON.stringify({ api: 'https://p9.example', update_url: 'https://u9.example/c' }) };
        }
        if (request.url.startsWith('https://u9.example/c')) {
          return { status: 200, body: JSON.stringify({ version: '999', url: 'https://dl.example/q' }) };
        }
        return { status: 200, body: '{}' };
      });
      await configApplied(window);
      await window.fetch('/api/v1/user/info');
      assert.equal(page.bridge.httpRequests().at(-1).url, 'https://p9.example/api/v1/user/info');
      assert.equal(page.pageFetches.length, 0, 'nothing left the bridge');
      // window.open is the runtime's here, and the download opens in the system browser.
      await waitFor(() => page.bridge.calls('openExternal').length, { what: 'download link' });
      assert.deepEqual(page.bridge.calls('openExternal')[0].args, ['https://dl.example/q']);
    });
  });
});
