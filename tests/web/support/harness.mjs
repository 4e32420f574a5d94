// A page for the web scripts: a fresh jsdom window per test, the native bridge replaced by a
// scripted fake that records what the page posts and answers the way the native side does
// (by evaluating window.__nativeBridgeResolve / __nativeBridgeReject statements).
import { existsSync, readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';
import { JSDOM, VirtualConsole } from 'jsdom';

import { assembleScript, xorBytes } from '../../../resources/assemble.mjs';

const require = createRequire(import.meta.url);
export const sourceDir = resolve(dirname(fileURLToPath(import.meta.url)), '../../..');
const stageDir = process.env.QEV_STAGE_DIR || '';

function cmakeSetting(text, name) {
  const match = text.match(new RegExp(`^set\\(${name} "([^"]*)"`, 'm'));
  return match ? match[1] : '';
}

function cacheSetting(text, name) {
  const match = text.match(new RegExp(`^${name}:[A-Z]+=(.*)$`, 'm'));
  return match ? match[1] : null;
}

// The deployment values the scripts were (or would be) built with: the build tree's cache
// when the tests run against a staged build, the defaults of cmake/Deployment.cmake otherwise.
function loadDeployment() {
  const defaults = readFileSync(join(sourceDir, 'cmake/Deployment.cmake'), 'utf8');
  const cachePath = stageDir ? resolve(stageDir, '../../CMakeCache.txt') : '';
  const cache = cachePath && existsSync(cachePath) ? readFileSync(cachePath, 'utf8') : '';
  const value = (name) => (cache ? cacheSetting(cache, name) : null) ?? cmakeSetting(defaults, name);
  const platform = process.platform === 'darwin' ? 'darwin' : 'linux';
  return Object.freeze({
    platform,
    defaultHome: platform === 'darwin' ? '/Users/user' : '/home/user',
    userDataDir: platform === 'darwin' ? '/Library/Application Support/qevjs' : '/.local/share/qevjs',
    clientVersion: value('QEV_CLIENT_VERSION'),
    panelApiBase: value('QEV_PANEL_API_BASE'),
    remoteConfigUrl: value('QEV_REMOTE_CONFIG_URL'),
    cipherKey: cmakeSetting(defaults, 'QEV_CIPHER_KEY'),
  });
}

export const deployment = loadDeployment();

export function placeholderValues(d = deployment) {
  return {
    QEV_PLATFORM: d.platform,
    QEV_DEFAULT_HOME: d.defaultHome,
    QEV_USER_DATA_DIR: d.userDataDir,
    QEV_CLIENT_VERSION: d.clientVersion,
    QEV_CIPHER_KEY: d.cipherKey,
    QEV_PANEL_API_BASE_CIPHER: xorBytes(d.panelApiBase, d.cipherKey),
    QEV_REMOTE_CONFIG_URL_CIPHER: xorBytes(d.remoteConfigUrl, d.cipherKey),
  };
}

export const manifests = {
  runtime: join(sourceDir, 'resources/runtime/manifest.json'),
  ossConfig: join(sourceDir, 'resources/oss-config/manifest.json'),
};

const builtScripts = {
  runtime: stageDir ? join(stageDir, 'nativeCompatibilityScript.js') : '',
  ossConfig: stageDir ? resolve(stageDir, '../../generated/qev/qevjs-oss-config.js') : '',
};

const scriptCache = new Map();

// The script as built when a build tree is given, else assembled here from the sources.
export function scriptText(kind) {
  if (!scriptCache.has(kind)) {
    const built = builtScripts[kind];
    if (stageDir && kind === 'runtime' && !existsSync(built)) {
      throw new Error(`QEV_STAGE_DIR is set but ${built} is missing; build qev_runtime_script`);
    }
    const text = built && existsSync(built) ? readFileSync(built, 'utf8')
                                             : assembleScript(manifests[kind], placeholderValues());
    scriptCache.set(kind, text);
  }
  return scriptCache.get(kind);
}

export function builtScriptPath(kind) {
  return builtScripts[kind] && existsSync(builtScripts[kind]) ? builtScripts[kind] : '';
}

const cryptoJsSource = readFileSync(require.resolve('crypto-js/crypto-js.js'), 'utf8');

// A page value as plain data of this realm, for deep comparisons.
export function plain(value) {
  return value === undefined ? undefined : JSON.parse(JSON.stringify(value));
}

export function sleep(ms) {
  return new Promise((done) => setTimeout(done, ms));
}

export async function waitFor(predicate, { timeout = 3000, what = 'condition' } = {}) {
  const deadline = Date.now() + timeout;
  for (;;) {
    const value = predicate();
    if (value) {
      return value;
    }
    if (Date.now() > deadline) {
      throw new Error(`timed out waiting for ${what}`);
    }
    await sleep(5);
  }
}

// Lets pending promise callbacks and zero-delay timers of the page run.
export async function settle(rounds = 3) {
  for (let i = 0; i < rounds; i++) {
    await sleep(0);
  }
}

class FakeBridge {
  constructor(page) {
    this.page = page;
    this.messages = [];
    this.logs = [];
    this.responders = new Map();
    this.failPosting = false;
  }

  // Stands where the relay of qev's isolated script world stands: it takes what the runtime
  // posts through the document and hands the native side a serialised copy.
  install(window) {
    const bridge = this;
    const ATTRIBUTE = 'data-qev-native-message';
    window.document.addEventListener('qev-native-message', () => {
      if (bridge.failPosting) {
        return; // the message stays unclaimed: no relay took it
      }
      const root = window.document.documentElement;
      const text = root.getAttribute(ATTRIBUTE);
      root.removeAttribute(ATTRIBUTE);
      const { channel, body } = JSON.parse(text);
      if (channel === 'nativeLog') {
        bridge.logs.push(body.message);
        return;
      }
      bridge.messages.push(body);
      const responder = bridge.responders.get(body.name);
      if (responder) {
        setImmediate(() => bridge.runResponder(responder, body));
      }
    });
  }

  async runResponder(responder, message) {
    try {
      const value = await responder(message.args, message);
      this.resolve(message.id, value === undefined ? true : value);
    } catch (error) {
      this.reject(message.id, error.message);
    }
  }

  // Answers every later call of a command: the responder returns the result or throws.
  answer(name, responder) {
    this.responders.set(name, responder);
    return this;
  }

  resolve(id, value) {
    this.page.window.eval(`window.__nativeBridgeResolve && window.__nativeBridgeResolve(${JSON.stringify(id)}, ${JSON.stringify(value)});`);
  }

  reject(id, message) {
    this.page.window.eval(`window.__nativeBridgeReject && window.__nativeBridgeReject(${JSON.stringify(id)}, ${JSON.stringify(message)});`);
  }

  calls(name) {
    return this.messages.filter((message) => message.name === name);
  }

  httpRequests() {
    return this.calls('httpRequest').map((message) => message.args[0]);
  }

  logged(prefix) {
    return this.logs.filter((line) => line.startsWith(prefix));
  }
}

export class Page {
  constructor({
    url = 'http://app.test/',
    scripts = ['runtime'],
    before = null,
    cryptoJs = false,
    storage = {},
    session = {},
    timerCap = null,
  } = {}) {
    this.jsdomErrors = [];
    this.pageFetches = [];
    this.timerDelays = [];
    const virtualConsole = new VirtualConsole();
    virtualConsole.on('jsdomError', (error) => this.jsdomErrors.push(error.message));
    this.dom = new JSDOM('<!doctype html><html><head></head><body></body></html>', {
      url,
      runScripts: 'outside-only',
      virtualConsole,
    });
    this.window = this.dom.window;
    this.bridge = new FakeBridge(this);
    this.bridge.install(this.window);
    this.installNetworkGlobals();
    if (timerCap !== null) {
      this.capTimers(timerCap);
    }
    for (const [key, value] of Object.entries(storage)) {
      this.window.localStorage.setItem(key, value);
    }
    for (const [key, value] of Object.entries(session)) {
      this.window.sessionStorage.setItem(key, value);
    }
    if (cryptoJs) {
      this.window.eval(cryptoJsSource);
    }
    if (before) {
      before(this.window, this);
    }
    for (const kind of scripts) {
      this.evaluate(kind);
    }
  }

  evaluate(kind) {
    this.window.eval(scriptText(kind));
  }

  // jsdom has no fetch: the page gets Node's Response and Headers, and a page-level fetch
  // that records what reaches it and answers with pageFetchAnswer(url, init) (by default
  // 200 "page:" + URL; a test may replace it, also from `before`).
  installNetworkGlobals() {
    const page = this;
    this.window.Response = Response;
    this.window.Headers = Headers;
    this.window.Request = Request;
    this.pageFetchAnswer = (url) => new Response(`page:${url}`, { status: 200 });
    this.window.fetch = function pageFetch(input, init) {
      page.pageFetches.push({ input, init });
      const url = typeof input === 'string' ? input : String(input.url || input);
      return Promise.resolve().then(() => page.pageFetchAnswer(url, init));
    };
  }

  capTimers(cap) {
    const window = this.window;
    const pageSetTimeout = window.setTimeout.bind(window);
    window.setTimeout = (fn, ms, ...args) => {
      this.timerDelays.push(ms || 0);
      return pageSetTimeout(fn, Math.min(ms || 0, cap), ...args);
    };
  }

  // Navigations jsdom cannot perform (a reload) show up as "not implemented" reports.
  get navigationAttempts() {
    return this.jsdomErrors.filter((message) => message.includes('navigation')).length;
  }

  close() {
    this.window.close();
  }
}

// Runs fn with a fresh page and closes the page afterwards.
export async function withPage(options, fn) {
  const page = new Page(options);
  try {
    return await fn(page, page.window);
  } finally {
    page.close();
  }
}
