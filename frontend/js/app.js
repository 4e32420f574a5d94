// The frontend: state, the actions that change it, and the drawing of the current view.
// Everything the page touches comes in through `window`, so the same code runs in the app's
// web view and, for the tests, in a simulated page.
import { createBuilder, replaceContent } from './dom.js';
import { isCoreDown, isNodeUnavailable, nativeErrorMessage, panelFailureMessage, say } from './errors.js';
import { pickLanguage, translator } from './i18n.js';
import { createNative, versionFrom } from './native.js';
import { getSubscribe, getWebsite, login } from './panel.js';
import { forEachLimited, measureDelay, nodeListFrom, SELECTOR_GROUP, selectorGroups } from './servers.js';
import {
  adoptLogin, clearSession, hasSession, lastSubscribeUrl, saveLanguage, savedLanguage, sessionCredential,
} from './session.js';
import { activityView } from './views/activity.js';
import { homeView } from './views/home.js';
import { activityIcon, homeIcon, nodesIcon, settingsIcon } from './views/icons.js';
import { loginView } from './views/login.js';
import { MODES, settingsView } from './views/settings.js';
import { nodesView } from './views/nodes.js';

const TABS = [
  ['home', 'nav.home', homeIcon],
  ['nodes', 'nav.nodes', nodesIcon],
  ['activity', 'nav.activity', activityIcon],
  ['settings', 'nav.settings', settingsIcon],
];
const LOGIN_NOTICE_KEY = 'qev.loginNotice';
const LOGIN_RELOAD_KEY = '__nativeLoginReloaded';
// How long the page waits for the runtime's reload after the first login of a session.
const LOGIN_RELOAD_WAIT_MS = 2000;
// The node list fills once the native side has the subscription; until then it is polled.
const SERVER_POLL_MS = 1500;
const SERVER_POLL_LIMIT = 40;
const LATENCY_PARALLEL = 4;
const SETTINGS_POLL_MS = 250;
const SETTINGS_POLL_LIMIT = 8;
const NOTICE_MS = 4000; // how long a notice of success stays
const ACTIVITY_POLL_MS = 1000;

function initialState(language) {
  return {
    language,
    phase: 'starting',
    tab: 'home',
    website: '',
    rememberedNode: '',
    login: { email: '', password: '', showPassword: false, busy: false, error: null },
    account: { status: 'idle', data: null, error: null },
    connection: { status: 'off', error: null },
    speed: null, // { up, down } in bytes per second while connected
    subscriptionUpdatedAt: 0, // unix seconds of the last good download, 0 when unknown
    activity: { view: 'connections', connections: [], logs: [], level: 'info', copied: false },
    nodes: {
      list: [], current: '', loaded: false, delays: {}, testing: false, switching: '', refreshing: false, message: null,
      query: '', sort: 'order', groups: [], group: SELECTOR_GROUP, mainCurrent: '',
    },
    settings: {
      mode: 'rule', tun: false, tunBusy: false, autoLaunch: false, autoLaunchBusy: false, version: '',
      modeMessage: null, tunMessage: null, autoLaunchMessage: null,
    },
  };
}

function sessionValue(window, key) {
  try {
    return window.sessionStorage.getItem(key) || '';
  } catch (_) {
    return '';
  }
}

function setSessionValue(window, key, value) {
  try {
    if (value) {
      window.sessionStorage.setItem(key, value);
    } else {
      window.sessionStorage.removeItem(key);
    }
  } catch (_) {
    // Without session storage the notice is simply not shown.
  }
}

export function startApp(window, options = {}) {
  const document = window.document;
  const storage = window.localStorage;
  const native = options.native || createNative(window);
  const now = options.now || (() => Date.now());
  const root = options.root || document.getElementById('app');
  const announcer = options.announcer || document.getElementById('announcer');
  const h = createBuilder(document);
  const fetchFn = (input, init) => window.fetch(input, init);
  const wait = (ms) => new Promise((done) => window.setTimeout(done, ms));

  const locales = (window.navigator && (window.navigator.languages || [window.navigator.language])) || [];
  const state = initialState(pickLanguage(savedLanguage(storage), locales));
  state.now = now;
  let t = translator(state.language);
  let generation = 0; // bumps at every sign-out, so late answers of the old session are dropped
  let pollTimer = null;
  let lastAnnouncement = '';

  // Notices of success go away by themselves; errors stay until the next action.
  function fadeNotice(pick, clear) {
    const notice = pick(state);
    if (notice && !notice.error) {
      window.setTimeout(() => {
        if (pick(state) === notice) {
          update(clear);
        }
      }, NOTICE_MS);
    }
  }

  // The activity tab reads the core's connections or log once a second while it shows.
  let activityPolling = false;
  async function loadActivity() {
    try {
      if (state.activity.view === 'logs') {
        const logs = await native.getLogs(state.activity.level);
        update((s) => { s.activity.logs = Array.isArray(logs) ? logs.slice().reverse() : []; });
      } else {
        const answer = await native.getConnections();
        const list = answer && Array.isArray(answer.connections) ? answer.connections : [];
        update((s) => { s.activity.connections = list; });
      }
    } catch (_) {
      // Without a core there is nothing to show; the empty state says so.
    }
  }
  async function pollActivity() {
    if (activityPolling) {
      return;
    }
    activityPolling = true;
    while (state.tab === 'activity' && state.phase === 'app') {
      await loadActivity();
      await wait(ACTIVITY_POLL_MS);
    }
    activityPolling = false;
  }

  // ---- drawing ---------------------------------------------------------------------------

  function announce(text) {
    if (announcer && text && text !== lastAnnouncement) {
      lastAnnouncement = text;
      announcer.textContent = text;
    }
  }

  function tabBar() {
    return h('nav', { class: 'tabs', 'aria-label': t('nav.label') },
      TABS.map(([tab, key, icon]) => h('button', {
        class: 'tab',
        key: `tab:${tab}`,
        'aria-current': state.tab === tab ? 'page' : null,
        onclick: () => actions.showTab(tab),
      }, icon(h), h('span', { class: 'tab-label' }, t(key)))));
  }

  function currentView() {
    if (state.phase === 'starting') {
      return h('p', { class: 'empty muted' }, t('app.loading'));
    }
    if (state.phase === 'login') {
      return loginView(h, t, state, actions);
    }
    if (state.tab === 'nodes') {
      return nodesView(h, t, state, actions);
    }
    if (state.tab === 'activity') {
      return activityView(h, t, state, actions);
    }
    return state.tab === 'settings' ? settingsView(h, t, state, actions) : homeView(h, t, state, actions);
  }

  function render() {
    document.documentElement.lang = state.language;
    document.title = t('app.name');
    const frame = h('div', { class: `frame phase-${state.phase}` },
      h('header', { class: 'topbar' },
        h('span', { class: 'brand' }, t('app.name')),
        h('button', {
          class: 'lang-toggle',
          key: 'lang-toggle',
          'aria-label': t('lang.switch'),
          title: t('lang.switch'),
          onclick: () => actions.setLanguage(state.language === 'en' ? 'zh-CN' : 'en'),
        }, t('lang.short'))),
      h('main', { class: 'content', id: 'content', 'data-scroll': `content:${state.phase}:${state.tab}` }, currentView()),
      state.phase === 'app' ? tabBar() : null);
    replaceContent(root, frame);
  }

  function update(change) {
    change(state);
    render();
  }

  // ---- native state ------------------------------------------------------------------------

  let lastTable = false; // the last proxy table, so that another group shows without a call

  function applyServers(table) {
    lastTable = table;
    const groups = selectorGroups(table);
    const group = groups.includes(state.nodes.group) ? state.nodes.group : SELECTOR_GROUP;
    const { nodes, current } = nodeListFrom(table, group);
    update((s) => {
      s.nodes.groups = groups;
      s.nodes.group = group;
      s.nodes.list = nodes;
      s.nodes.current = current;
      s.nodes.mainCurrent = nodeListFrom(table).current;
      s.nodes.loaded = s.nodes.loaded || nodes.length > 0;
    });
    return nodes.length;
  }

  async function refreshServers() {
    const mine = generation;
    let table = false;
    try {
      table = await native.getServers();
    } catch (_) {
      table = false;
    }
    if (mine !== generation || state.phase !== 'app') {
      return 0;
    }
    return applyServers(table);
  }

  function stopPolling() {
    if (pollTimer !== null) {
      window.clearTimeout(pollTimer);
      pollTimer = null;
    }
  }

  // Asks for the node list until it has entries (the subscription reaches the core a moment
  // after the account summary is fetched), then stops.
  function pollServers(round = 0) {
    stopPolling();
    refreshServers().then((count) => {
      if (count > 0 || state.phase !== 'app') {
        return;
      }
      if (round + 1 >= SERVER_POLL_LIMIT) {
        update((s) => { s.nodes.loaded = true; });
        return;
      }
      pollTimer = window.setTimeout(() => pollServers(round + 1), SERVER_POLL_MS);
    });
  }

  async function loadNativeState() {
    const mine = generation;
    const [config, settings] = await Promise.all([
      native.getConfig().catch(() => null),
      native.getSettings().catch(() => null),
    ]);
    if (mine !== generation) {
      return;
    }
    update((s) => {
      const source = Object.assign({}, settings || {}, config || {});
      if (MODES.includes(source.mode)) {
        s.settings.mode = source.mode;
      }
      s.settings.tun = Boolean(settings && settings.tun === true);
      s.settings.autoLaunch = source.autoLaunch === true;
      s.settings.version = versionFrom(config);
      const info = config && config.subscriptionInfo;
      s.subscriptionUpdatedAt = info && Number(info.updatedAt) > 0 ? Number(info.updatedAt) : s.subscriptionUpdatedAt;
      s.rememberedNode = config && typeof config.nodeName === 'string' ? config.nodeName.trim() : '';
      if (config && config.proxyEnabled === true && s.connection.status === 'off') {
        s.connection = { status: 'on', error: null };
      }
    });
  }

  // ---- account -------------------------------------------------------------------------------

  async function loadAccount() {
    const mine = generation;
    update((s) => { s.account = { status: 'loading', data: s.account.data, error: null }; });
    const answer = await getSubscribe(fetchFn, sessionCredential(storage), state.language);
    if (mine !== generation) {
      return;
    }
    if (answer.ok) {
      update((s) => { s.account = { status: 'ready', data: answer.data, error: null }; });
      return;
    }
    if (answer.kind === 'auth') {
      await signOut('expired');
      return;
    }
    update((s) => { s.account = { status: 'failed', data: null, error: panelFailureMessage(answer) }; });
  }

  function enterApp() {
    update((s) => {
      s.phase = 'app';
      s.tab = 'home';
      s.login = { email: s.login.email, password: '', showPassword: false, busy: false, error: null };
    });
    loadAccount();
    loadNativeState().then(() => pollServers());
  }

  async function signOut(reason) {
    generation += 1;
    stopPolling();
    if (state.connection.status === 'on' || state.connection.status === 'connecting') {
      try {
        await native.stopProxy();
      } catch (_) {
        // The proxy is switched off again at the next start if this failed.
      }
    }
    clearSession(storage);
    const email = state.login.email || (state.account.data && state.account.data.email) || '';
    const language = state.language;
    Object.assign(state, initialState(language), { now, phase: 'login' });
    state.login.email = email;
    state.login.error = reason === 'expired' ? { key: 'login.expired' } : null;
    render();
    // A fresh page drops everything the runtime remembered of this session, so the next
    // login hands its own subscription to the native side.
    setSessionValue(window, LOGIN_NOTICE_KEY, reason === 'expired' ? 'expired' : '');
    try {
      window.location.reload();
    } catch (_) {
      // Pages that cannot reload keep working with the state reset above.
    }
  }

  // ---- actions -------------------------------------------------------------------------------

  const actions = {
    showTab(tab) {
      update((s) => { s.tab = tab; });
      if (tab === 'nodes') {
        refreshServers();
      }
      if (tab === 'activity') {
        pollActivity();
      }
      const content = document.getElementById('content');
      if (content) {
        content.scrollTop = 0;
      }
    },

    showActivity(view) {
      update((s) => { s.activity.view = view; s.activity.copied = false; });
      loadActivity();
    },

    async closeConnection(id) {
      await native.closeConnection(id).catch(() => {});
      loadActivity();
    },

    async closeAllConnections() {
      await native.closeAllConnections().catch(() => {});
      loadActivity();
    },

    setLogLevel(level) {
      update((s) => { s.activity.level = level; });
      loadActivity();
    },

    async copyLogs() {
      const text = state.activity.logs.map((line) => `${line.time} [${line.level}] ${line.text}`).join('\n');
      try {
        await window.navigator.clipboard.writeText(text);
        update((s) => { s.activity.copied = true; });
      } catch (_) {
        // Without a clipboard the lines stay selectable on the page.
      }
    },

    setLanguage(language) {
      saveLanguage(storage, language);
      t = translator(language);
      update((s) => { s.language = t.language; });
      native.setLanguage(t.language).catch(() => {});
    },

    editLogin(field, value) {
      state.login[field] = value; // no redraw while typing
    },

    togglePassword() {
      update((s) => { s.login.showPassword = !s.login.showPassword; });
    },

    async submitLogin() {
      const email = state.login.email.trim();
      const password = state.login.password;
      if (!email || !password) {
        update((s) => {
          s.login.error = email ? { key: 'login.missingPassword', field: 'password' } : { key: 'login.missingEmail', field: 'email' };
        });
        const field = document.getElementById(email ? 'password' : 'email');
        if (field) {
          field.focus();
        }
        return;
      }
      if (state.login.busy) {
        return;
      }
      const reloadMarkedBefore = Boolean(sessionValue(window, LOGIN_RELOAD_KEY));
      update((s) => { s.login.busy = true; s.login.error = null; });
      const result = await login(fetchFn, email, password, state.language);
      if (!result.ok) {
        update((s) => { s.login.busy = false; s.login.error = panelFailureMessage(result); });
        announce(say(t, state.login.error));
        const field = document.getElementById('password');
        if (field) {
          field.focus();
        }
        return;
      }
      adoptLogin(storage, result.data);
      native.log('frontend.login.ok');
      if (!reloadMarkedBefore && sessionValue(window, LOGIN_RELOAD_KEY)) {
        // The runtime reloads the page once after the first login of a session; the new page
        // starts signed in. Carry on here only if that reload does not come.
        await wait(LOGIN_RELOAD_WAIT_MS);
      }
      enterApp();
    },

    loadAccount: () => loadAccount(),

    async connect() {
      if (state.connection.status === 'connecting' || state.connection.status === 'disconnecting') {
        return;
      }
      const mine = generation;
      update((s) => { s.connection = { status: 'connecting', error: null }; });
      announce(t('connect.connecting'));
      try {
        await native.startProxy();
        if (mine !== generation) {
          return;
        }
        update((s) => { s.connection = { status: 'on', error: null }; });
        announce(t('connect.connected'));
        refreshServers();
      } catch (error) {
        if (mine !== generation) {
          return;
        }
        if (isNodeUnavailable(error)) {
          update((s) => { s.connection = { status: 'unavailable', error: null }; });
          announce(`${t('connect.unavailable')}. ${t('connect.unavailableHint')}`);
        } else {
          const detail = nativeErrorMessage(error);
          update((s) => { s.connection = { status: 'failed', error: { key: 'connect.failed', params: { detail } } }; });
          announce(say(t, state.connection.error));
        }
        // The explanation may land below the fold of the small window.
        const alert = document.querySelector('.connect .alert');
        if (alert && typeof alert.scrollIntoView === 'function') {
          alert.scrollIntoView({ block: 'nearest' });
        }
      }
    },

    async disconnect() {
      if (state.connection.status !== 'on') {
        return;
      }
      const mine = generation;
      update((s) => { s.connection = { status: 'disconnecting', error: null }; });
      try {
        await native.stopProxy();
        if (mine === generation) {
          update((s) => { s.connection = { status: 'off', error: null }; });
          announce(t('connect.disconnected'));
        }
      } catch (error) {
        if (mine === generation) {
          update((s) => {
            s.connection = { status: 'on', error: { key: 'connect.disconnectFailed', params: { detail: nativeErrorMessage(error) } } };
          });
        }
      }
    },

    async selectNode(name) {
      if (state.nodes.switching) {
        return;
      }
      const mine = generation;
      update((s) => { s.nodes.switching = name; s.nodes.message = null; });
      let message;
      try {
        const group = state.nodes.group;
        const switched = await (group === SELECTOR_GROUP ? native.setProxy(name) : native.setProxy({ group, name }));
        message = switched === false ? { key: 'nodes.coreDown', params: { name } } : { key: 'nodes.selected', params: { name } };
        // While connected the new node carries the traffic at once: say how it answers.
        if (switched !== false && state.connection.status === 'on') {
          const result = await measureDelay(fetchFn, name);
          update((s) => { s.nodes.delays[name] = result; });
          message = result.delay ? { key: 'nodes.selectedDelay', params: { name, ms: Math.round(result.delay) } }
            : { key: 'nodes.selectedSilent', params: { name }, error: true };
        }
        if (mine === generation) {
          update((s) => {
            s.nodes.current = name;
            if (s.nodes.group === SELECTOR_GROUP) {
              s.nodes.mainCurrent = name;
              s.rememberedNode = name;
            }
            // A new node is worth another try after the old one failed.
            if (s.connection.status === 'unavailable' || s.connection.status === 'failed') {
              s.connection = { status: 'off', error: null };
            }
          });
        }
      } catch (error) {
        message = { key: 'nodes.selectFailed', params: { name, detail: nativeErrorMessage(error) }, error: true };
      }
      if (mine !== generation) {
        return;
      }
      update((s) => { s.nodes.switching = ''; s.nodes.message = message; });
      fadeNotice((s) => s.nodes.message, (s) => { s.nodes.message = null; });
      announce(say(t, message));
      const current = state.nodes.current;
      await refreshServers();
      // The core may answer with its previous choice for a moment; keep what the user chose.
      if (!message.error && state.nodes.current !== current && state.nodes.list.some((node) => node.name === current)) {
        update((s) => { s.nodes.current = current; });
      }
    },

    async testLatency() {
      if (state.nodes.testing || state.nodes.list.length === 0) {
        return;
      }
      const mine = generation;
      const list = state.nodes.list.slice();
      update((s) => {
        s.nodes.testing = { done: 0, total: list.length };
        s.nodes.delays = {};
        list.forEach((node) => { s.nodes.delays[node.name] = 'testing'; });
      });
      await forEachLimited(list, LATENCY_PARALLEL, (node) => measureDelay(fetchFn, node.name), (node, result) => {
        if (mine === generation) {
          update((s) => {
            s.nodes.delays[node.name] = result;
            s.nodes.testing = { done: s.nodes.testing.done + 1, total: list.length };
          });
        }
      });
      if (mine === generation) {
        update((s) => { s.nodes.testing = false; });
      }
    },

    async testNode(name) {
      if (state.nodes.delays[name] === 'testing') {
        return;
      }
      update((s) => { s.nodes.delays[name] = 'testing'; });
      const result = await measureDelay(fetchFn, name);
      update((s) => { s.nodes.delays[name] = result; });
    },

    showGroup(group) {
      state.nodes.group = group;
      applyServers(lastTable);
      refreshServers();
    },

    searchNodes(query) {
      state.nodes.query = query;
      render();
    },

    sortNodes(sort) {
      update((s) => { s.nodes.sort = sort; });
    },

    async refreshSubscription() {
      if (state.nodes.refreshing) {
        return;
      }
      const mine = generation;
      const data = state.account.data;
      const link = lastSubscribeUrl(storage) || (data && typeof data.subscribe_url === 'string' ? data.subscribe_url : '');
      if (!link) {
        update((s) => { s.nodes.message = { key: 'error.noSubscription', error: true }; });
        return;
      }
      update((s) => { s.nodes.refreshing = true; s.nodes.message = null; });
      let message;
      try {
        await native.updateSubscription(link);
        message = { key: 'nodes.refreshed' };
      } catch (error) {
        message = { key: 'nodes.refreshFailed', params: { detail: nativeErrorMessage(error) }, error: true };
      }
      if (mine !== generation) {
        return;
      }
      update((s) => {
        s.nodes.refreshing = false;
        s.nodes.message = message;
        s.nodes.loaded = true;
        if (!message.error) {
          s.subscriptionUpdatedAt = Math.floor(state.now() / 1000);
        }
      });
      fadeNotice((s) => s.nodes.message, (s) => { s.nodes.message = null; });
      announce(say(t, message));
      await refreshServers();
    },

    async setMode(mode) {
      const previous = state.settings.mode;
      update((s) => { s.settings.mode = mode; s.settings.modeMessage = null; });
      try {
        await native.setMode(mode);
      } catch (error) {
        // With the core stopped the mode is saved and applies at its next start.
        update((s) => {
          if (isCoreDown(error)) {
            s.settings.modeMessage = { key: 'settings.modeSaved' };
          } else {
            s.settings.mode = previous;
            s.settings.modeMessage = { key: 'settings.modeFailed', params: { detail: nativeErrorMessage(error) }, error: true };
          }
        });
        fadeNotice((s) => s.settings.modeMessage, (s) => { s.settings.modeMessage = null; });
        announce(say(t, state.settings.modeMessage));
      }
    },

    async setTun(enabled) {
      update((s) => {
        s.settings.tun = enabled;
        s.settings.tunBusy = true;
        s.settings.tunMessage = { key: 'settings.tunApplying' };
      });
      announce(t('settings.tunApplying'));
      try {
        const settings = await native.setTun(enabled);
        const actual = settings && typeof settings.tun === 'boolean' ? settings.tun : enabled;
        update((s) => {
          s.settings.tun = actual;
          s.settings.tunMessage = enabled && !actual ? { key: 'settings.tunRefused', error: true } : null;
        });
      } catch (error) {
        update((s) => {
          s.settings.tun = !enabled;
          s.settings.tunMessage = { key: 'settings.tunFailed', params: { detail: nativeErrorMessage(error) }, error: true };
        });
      }
      update((s) => { s.settings.tunBusy = false; });
      if (state.settings.tunMessage) {
        announce(say(t, state.settings.tunMessage));
      }
    },

    async setAutoLaunch(enabled) {
      update((s) => { s.settings.autoLaunch = enabled; s.settings.autoLaunchBusy = true; s.settings.autoLaunchMessage = null; });
      let actual = !enabled;
      try {
        await native.setOpenAtLogin(enabled);
        // The switch reports nothing back; read the state that took effect.
        for (let round = 0; round < SETTINGS_POLL_LIMIT; round++) {
          await wait(SETTINGS_POLL_MS);
          const settings = await native.getSettings();
          actual = Boolean(settings && settings.autoLaunch === true);
          if (actual === enabled) {
            break;
          }
        }
      } catch (_) {
        actual = !enabled;
      }
      update((s) => {
        s.settings.autoLaunch = actual;
        s.settings.autoLaunchBusy = false;
        s.settings.autoLaunchMessage = actual === enabled ? null : { key: 'settings.autoLaunchFailed', error: true };
      });
    },

    openWebsite() {
      if (state.website) {
        native.openExternal(state.website);
      }
    },

    logout: () => signOut('user'),
  };

  // ---- start ---------------------------------------------------------------------------------

  // What changed on the native side without the page asking: the tray, a restore, a core that
  // stopped, the live speed.
  native.onEvent('proxyState', ({ connected, reason, detail }) => {
    if (state.connection.status === 'connecting' || state.connection.status === 'disconnecting') {
      return; // the page's own request reports its outcome
    }
    update((s) => {
      if (connected) {
        s.connection = { status: 'on', error: null };
      } else if (reason === 'unavailable') {
        s.connection = { status: 'unavailable', error: null };
      } else if (reason === 'failed') {
        s.connection = { status: 'failed', error: { key: 'connect.failed', params: { detail: String(detail || '') } } };
      } else {
        s.connection = { status: 'off', error: reason === 'coreStopped' ? { key: 'connect.coreStopped' } : null };
      }
      if (!connected) {
        s.speed = null;
      }
    });
  });
  native.onEvent('traffic', ({ up, down }) => {
    if (state.connection.status === 'on' && state.tab === 'home') {
      update((s) => { s.speed = { up: Number(up) || 0, down: Number(down) || 0 }; });
    }
  });
  native.onEvent('subscription', (info) => {
    if (Number(info.updatedAt) > 0) {
      update((s) => { s.subscriptionUpdatedAt = Number(info.updatedAt); });
    }
  });
  native.onEvent('mode', ({ mode }) => {
    if (typeof mode === 'string' && mode) {
      update((s) => { s.settings.mode = mode; });
    }
  });
  native.setLanguage(state.language).catch(() => {});

  const notice = sessionValue(window, LOGIN_NOTICE_KEY);
  setSessionValue(window, LOGIN_NOTICE_KEY, '');
  render();
  getWebsite(fetchFn).then((url) => {
    const fallback = typeof window.__QEVJS_API_BASE__ === 'string' ? window.__QEVJS_API_BASE__ : '';
    const website = url || (/^https?:\/\//i.test(fallback) ? fallback : '');
    if (website) {
      update((s) => { s.website = website; });
    }
  });
  if (hasSession(storage)) {
    enterApp();
  } else {
    update((s) => {
      s.phase = 'login';
      s.login.error = notice === 'expired' ? { key: 'login.expired' } : null;
    });
  }

  return { state, actions, render };
}
