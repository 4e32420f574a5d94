// The frontend in a simulated page: the real runtime script, the frontend started on the page,
// and a scripted native side behind the bridge that answers like qev does, including the
// panel (either generation) and the core's controller behind `httpRequest`.
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { join } from 'node:path';

import { Page, settle, sourceDir, waitFor } from '../../support/harness.mjs';
import { startApp } from '../../../../frontend/js/app.js';

export const API = 'https://panel.test';
export const DEMO = { email: 'demo@qev.test', password: 'demo-password', token: '5f3c9a7e2b1d4c8f9a6e3b2d1c4f7a9e' };

export const SUBSCRIPTION = {
  plan_id: 1,
  token: DEMO.token,
  email: DEMO.email,
  expired_at: 1798646400,
  u: 1288490189,
  d: 1224065679,
  transfer_enable: 107374182400,
  reset_day: 12,
  plan: { id: 1, name: '标准套餐' },
};

// The proxy table getServers resolves once a subscription is applied: hidden choices already
// removed, "SELECT" aliased to the product's group.
export function proxyTable(now = 'HK-01') {
  const members = ['HK-01', 'JP-02 东京', 'US/03 Los Angeles'];
  const table = {
    SELECT: { type: 'Selector', name: 'SELECT', now, all: members.slice(), history: [] },
    'QEV加速': { type: 'Selector', name: 'QEV加速', now, all: members.slice(), history: [] },
    GLOBAL: { type: 'Selector', name: 'GLOBAL', now: 'HK-01', all: members.slice(), history: [] },
  };
  table['HK-01'] = { type: 'Vmess', name: 'HK-01', history: [{ time: '2025-01-01T00:00:00Z', delay: 88 }] };
  table['JP-02 东京'] = { type: 'Trojan', name: 'JP-02 东京', history: [] };
  table['US/03 Los Angeles'] = { type: 'Shadowsocks', name: 'US/03 Los Angeles', history: [] };
  return table;
}

function reply(status, body) {
  return { status, statusText: status === 200 ? 'OK' : 'Error', headers: { 'Content-Type': 'application/json' }, body };
}

// The panel of panel-api.md in the shape of one generation.
export class FakePanel {
  constructor({ generation = 'v2' } = {}) {
    this.generation = generation;
    this.sessions = new Set();
    this.requests = [];
    this.subscription = { ...SUBSCRIPTION };
  }

  success(data) {
    const body = this.generation === 'v2' ? { status: 'success', message: '操作成功', data, error: null } : { data };
    return reply(200, JSON.stringify(body));
  }

  failure(v1Status, v2Status, message) {
    if (this.generation === 'v2') {
      return reply(v2Status, JSON.stringify({ status: 'fail', message, data: null, error: null }));
    }
    return reply(v1Status, JSON.stringify({ message }));
  }

  handle(request) {
    const url = new URL(request.url);
    const headers = Object.fromEntries(Object.entries(request.headers || {}).map(([k, v]) => [k.toLowerCase(), v]));
    this.requests.push({ method: request.method, path: url.pathname, headers, body: request.body });
    if (url.pathname === '/api/v1/passport/auth/login') {
      const input = JSON.parse(request.body || '{}');
      if (!input.password || input.password.length < 8) {
        return reply(422, JSON.stringify({ message: '密码必须大于8位数', errors: { password: ['密码必须大于8位数'] } }));
      }
      if (input.email !== DEMO.email || input.password !== DEMO.password) {
        return this.failure(500, 400, '邮箱或密码错误');
      }
      const credential = this.generation === 'v2' ? `Bearer session-${this.sessions.size + 1}` : `jwt.session.${this.sessions.size + 1}`;
      this.sessions.add(credential);
      return this.success({ token: DEMO.token, is_admin: this.generation === 'v2' ? false : 0, auth_data: credential });
    }
    if (url.pathname === '/api/v1/guest/comm/config') {
      return this.success({ app_url: 'https://panel.qev.test', app_description: 'demo' });
    }
    if (url.pathname === '/api/v1/user/getSubscribe') {
      if (!this.sessions.has(headers.authorization)) {
        return this.failure(403, 403, '未登录或登陆已过期');
      }
      const link = this.generation === 'v2' ? `${API}/s/${DEMO.token}` : `${API}/api/v1/client/subscribe?token=${DEMO.token}`;
      return this.success({ ...this.subscription, subscribe_url: link });
    }
    return reply(404, 'Not Found');
  }
}

// The native side: configuration, nodes, start/stop, settings, TUN, start at login, and
// `httpRequest` to the panel and the controller.
export class FakeNative {
  constructor(page, panel) {
    this.page = page;
    this.panel = panel;
    this.table = false;
    this.now = 'HK-01';
    this.proxyEnabled = false;
    this.coreRunning = false;
    this.settings = { tun: false, apiBase: '', mode: 'rule', autoLaunch: false, proxyEnabled: false };
    this.deadNodes = new Set();
    this.delays = { 'HK-01': 35, 'JP-02 东京': 320 };
    this.timeouts = new Set(['US/03 Los Angeles']);
    this.refuseTun = false;
    this.subscribeLinks = [];
    const answer = (name, fn) => page.bridge.answer(name, fn);
    answer('getConfig', () => ({
      httpProxyPort: 33210, socks5ProxyPort: 33211, localApiPort: 33212, localApiUrl: 'http://127.0.0.1:33212',
      platform: 'linux', mode: this.settings.mode, autoLaunch: this.settings.autoLaunch, proxyEnabled: this.proxyEnabled,
      ...(this.now ? { nodeName: this.now, proxyName: this.now, currentProxyName: this.now, selectedProxy: this.now, currentNode: this.now } : {}),
    }));
    answer('getSettings', () => ({ ...this.settings }));
    answer('getServers', () => (this.table ? this.tableNow() : false));
    answer('updateConfig', (args) => this.updateConfig(args[0]));
    answer('setProxy', (args) => {
      this.now = args[0];
      return this.coreRunning;
    });
    answer('startProxy', () => {
      if (this.deadNodes.has(this.now)) {
        throw new Error('NODE_UNAVAILABLE');
      }
      this.proxyEnabled = true;
      return true;
    });
    answer('stopProxy', () => {
      this.proxyEnabled = false;
      return true;
    });
    answer('setTun', (args) => {
      this.settings.tun = args[0] === true && !this.refuseTun;
      return { ...this.settings };
    });
    answer('setAutoLaunch', (args) => {
      this.settings.autoLaunch = args[0] && args[0].openAtLogin === true;
      return { ...this.settings };
    });
    answer('openExternal', () => true);
    answer('httpRequest', (args) => this.http(args[0]));
  }

  tableNow() {
    const table = proxyTable(this.now);
    return table;
  }

  updateConfig(argument) {
    if (argument && typeof argument === 'object') {
      if (!this.coreRunning) {
        this.settings.mode = argument.mode;
        throw new Error('mihomo not running');
      }
      this.settings.mode = argument.mode;
      return true;
    }
    this.subscribeLinks.push(argument);
    this.table = true;
    this.coreRunning = true;
    return true;
  }

  http(request) {
    const url = new URL(request.url);
    if (url.host === '127.0.0.1:33212') {
      const match = /^\/proxies\/([^/]+)\/delay$/.exec(url.pathname);
      const name = match ? decodeURIComponent(match[1]) : '';
      if (this.timeouts.has(name)) {
        return reply(504, '{"message":"Timeout"}');
      }
      return this.delays[name] ? reply(200, JSON.stringify({ delay: this.delays[name] })) : reply(404, '{"message":"Resource not found"}');
    }
    if (url.origin === API) {
      return this.panel.handle(request);
    }
    throw new Error(`Could not resolve host: ${url.host}`);
  }
}

const indexHtml = readFileSync(join(sourceDir, 'frontend/index.html'), 'utf8');

// A page with the runtime script and the frontend's markup, the fake native side behind it,
// and the app started. Timers are shortened so polls and waits take milliseconds.
export function openApp({ generation = 'v2', storage = {}, session = { __nativeLoginReloaded: '1' }, languages = ['zh-CN'], setUp } = {}) {
  const panel = new FakePanel({ generation });
  const page = new Page({
    url: 'http://app.test/',
    storage,
    session,
    timerCap: 15,
    before: (window) => {
      window.__QEVJS_API_BASE__ = API;
      Object.defineProperty(window.navigator, 'languages', { value: languages, configurable: true });
    },
  });
  const native = new FakeNative(page, panel);
  if (setUp) {
    setUp(native, panel);
  }
  const document = page.window.document;
  document.body.innerHTML = /<body>([\s\S]*)<\/body>/.exec(indexHtml)[1];
  const app = startApp(page.window);
  return { page, panel, native, app, document, window: page.window };
}

export function $(document, selector) {
  return document.querySelector(selector);
}

export function byKey(document, key) {
  return Array.from(document.querySelectorAll('[data-key]')).find((element) => element.getAttribute('data-key') === key) || null;
}

export function text(document, selector) {
  const element = document.querySelector(selector);
  return element ? element.textContent.replace(/\s+/g, ' ').trim() : '';
}

export function type(element, value) {
  element.value = value;
  element.dispatchEvent(new element.ownerDocument.defaultView.Event('input', { bubbles: true }));
}

export async function until(predicate, what, timeout = 4000) {
  return waitFor(predicate, { timeout, what });
}

export { settle };

export const SIGNED_IN = { token: DEMO.token, auth_data: 'Bearer s1', authorization: DEMO.token };

export function signedIn(options = {}) {
  return openApp({
    storage: SIGNED_IN,
    languages: ['en-US'],
    ...options,
    setUp: (native, panel) => {
      panel.sessions.add('Bearer s1');
      if (options.setUp) {
        options.setUp(native, panel);
      }
    },
  });
}

export async function submitLogin(document, email, password) {
  await until(() => $(document, '#email'), 'the login form');
  type($(document, '#email'), email);
  type($(document, '#password'), password);
  $(document, 'form').dispatchEvent(new document.defaultView.Event('submit', { cancelable: true }));
}

export function click(document, key) {
  const element = byKey(document, key);
  assert.ok(element, `no control ${key}`);
  element.click();
}

export async function nodesReady(document) {
  click(document, 'tab:nodes');
  await until(() => document.querySelectorAll('.node').length === 3, 'the node list');
}

export async function withApp(options, fn) {
  const session = options.signedIn === false ? openApp(options) : signedIn(options);
  try {
    await fn(session);
  } finally {
    await settle(5);
    session.page.close();
  }
}
