// Home: the account summary, the connect button, the live speed and routing, the selected node.
import { say } from '../errors.js';
import { expiryState, formatBytes, resetState, trafficSummary } from '../format.js';
import { powerIcon, chevronIcon } from './icons.js';

function accountCard(h, t, state, actions) {
  const account = state.account;
  if (account.status === 'failed') {
    return h('section', { class: 'card account', 'aria-labelledby': 'account-title' },
      h('h2', { id: 'account-title', class: 'card-title' }, t('home.account')),
      h('p', { class: 'alert', role: 'alert' }, t('home.loadFailed', { detail: say(t, account.error) })),
      h('button', { class: 'button secondary', key: 'account-retry', onclick: actions.loadAccount }, t('home.retry')));
  }
  if (account.status !== 'ready') {
    return h('section', { class: 'card account', 'aria-busy': 'true' },
      h('p', { class: 'muted' }, t('home.loading')));
  }
  const data = account.data;
  const plan = data.plan && typeof data.plan.name === 'string' && data.plan.name ? data.plan.name : t('home.noPlan');
  const traffic = trafficSummary(data);
  const expiry = expiryState(data.expired_at, state.now());
  const reset = resetState(data.reset_day);
  const percent = traffic.ratio === null ? 0 : Math.round(traffic.ratio * 100);
  const expiryText = expiry.kind === 'never' ? t('home.expiresNever')
    : expiry.kind === 'expired' ? t('home.expired', { date: expiry.date }) : expiry.date;
  const resetText = reset.kind === 'none' ? t('home.resetNone')
    : reset.kind === 'today' ? t('home.resetToday') : t('home.resetIn', { days: reset.days });
  const usedText = traffic.total === null ? formatBytes(traffic.used)
    : t('home.trafficUsed', { used: formatBytes(traffic.used), total: formatBytes(traffic.total) });

  return h('section', { class: 'card account', 'aria-labelledby': 'plan-name' },
    h('div', { class: 'plan-row' },
      h('span', { class: 'label' }, t('home.plan')),
      h('span', { id: 'plan-name', class: 'plan-name' }, plan)),
    h('div', { class: 'traffic' },
      h('div', { class: 'traffic-head' },
        h('span', { class: 'label', id: 'traffic-label' }, t('home.traffic')),
        traffic.left === null ? null : h('span', { class: 'muted' }, t('home.trafficLeft', { left: formatBytes(traffic.left) }))),
      h('div', {
        class: `meter${percent >= 90 ? ' meter-high' : ''}`,
        role: 'progressbar',
        'aria-labelledby': 'traffic-label',
        'aria-valuemin': '0',
        'aria-valuemax': '100',
        'aria-valuenow': String(percent),
        'aria-valuetext': usedText,
      }, h('span', { class: 'meter-fill', style: `width: ${percent}%` })),
      h('p', { class: 'traffic-used' }, usedText)),
    h('dl', { class: 'facts' },
      h('div', { class: 'fact' },
        h('dt', {}, t('home.expires')),
        h('dd', { class: expiry.kind === 'expired' ? 'danger-text' : '' }, expiryText,
          expiry.kind === 'date' ? h('span', { class: 'fact-note' }, t('home.daysLeft', { days: expiry.days })) : null)),
      h('div', { class: 'fact' }, h('dt', {}, t('home.reset')), h('dd', {}, resetText))),
    h('div', { class: 'updated' },
      h('span', { class: 'muted' }, updatedText(t, state)),
      h('button', {
        class: 'link-button',
        key: 'update-now',
        disabled: state.nodes.refreshing,
        onclick: actions.refreshSubscription,
      }, t(state.nodes.refreshing ? 'nodes.refreshing' : 'home.updateNow'))));
}

// "Updated 5 min ago" from the last good download of the subscription.
function updatedText(t, state) {
  if (!state.subscriptionUpdatedAt) {
    return t('home.updatedUnknown');
  }
  const minutes = Math.max(0, Math.floor((state.now() / 1000 - state.subscriptionUpdatedAt) / 60));
  if (minutes < 1) {
    return t('home.updatedJustNow');
  }
  return minutes < 60 ? t('home.updatedMinutes', { minutes })
    : minutes < 48 * 60 ? t('home.updatedHours', { hours: Math.floor(minutes / 60) })
      : t('home.updatedDays', { days: Math.floor(minutes / 1440) });
}

const CONNECT_LABELS = {
  off: ['connect.connect', 'connect.disconnected'],
  failed: ['connect.retry', 'connect.disconnected'],
  unavailable: ['connect.retry', 'connect.disconnected'],
  connecting: ['connect.connecting', 'connect.connecting'],
  on: ['connect.disconnect', 'connect.connected'],
  disconnecting: ['connect.disconnecting', 'connect.disconnecting'],
};

function connectPanel(h, t, state, actions) {
  const connection = state.connection;
  const [buttonKey, statusKey] = CONNECT_LABELS[connection.status] || CONNECT_LABELS.off;
  const busy = connection.status === 'connecting' || connection.status === 'disconnecting';
  const on = connection.status === 'on';
  let problem = null;
  if (connection.status === 'unavailable') {
    problem = h('div', { class: 'alert', role: 'alert' },
      h('strong', {}, t('connect.unavailable')),
      h('span', {}, t('connect.unavailableHint')),
      h('button', { class: 'link-button', key: 'choose-node', onclick: () => actions.showTab('nodes') }, t('home.chooseNode')));
  } else if (connection.error) {
    problem = h('p', { class: 'alert', role: 'alert' }, say(t, connection.error));
  }
  return h('section', { class: 'connect', 'aria-label': t(statusKey) },
    h('button', {
      class: 'power',
      key: 'connect',
      'data-state': busy ? 'busy' : on ? 'on' : connection.status === 'off' ? 'off' : 'problem',
      'aria-describedby': 'connect-status',
      'aria-busy': busy ? 'true' : null,
      disabled: busy,
      onclick: on ? actions.disconnect : actions.connect,
    }, powerIcon(h), h('span', { class: 'power-label' }, t(buttonKey))),
    h('p', { id: 'connect-status', class: `connect-status status-${connection.status}` }, t(statusKey)),
    problem);
}

// While connected: the speed up and down, and how traffic is routed, at a glance.
function liveRow(h, t, state) {
  const settings = state.settings;
  const mode = t(`settings.mode.${settings.mode}`);
  const routing = h('p', { class: 'routing muted' },
    h('span', { class: 'routing-mode' }, t('home.routing', { mode })), ' · ',
    h('span', { class: 'routing-tun' }, t(settings.tun ? 'home.tunOn' : 'home.tunOff')));
  if (state.connection.status !== 'on') {
    return routing;
  }
  const speed = state.speed || { up: 0, down: 0 };
  return h('div', { class: 'live' },
    h('dl', { class: 'speed', 'aria-label': t('home.speed') },
      h('div', { class: 'speed-up' }, h('dt', {}, '↑ ', t('home.upload')), h('dd', {}, `${formatBytes(speed.up)}/s`)),
      h('div', { class: 'speed-down' }, h('dt', {}, '↓ ', t('home.download')), h('dd', {}, `${formatBytes(speed.down)}/s`))),
    routing);
}

function nodeRow(h, t, state, actions) {
  const nodes = state.nodes;
  const name = nodes.mainCurrent || state.rememberedNode;
  const text = name || (nodes.list.length === 0 ? t('home.nodesLoading') : t('home.noNode'));
  return h('button', { class: 'node-row card', key: 'node-row', onclick: () => actions.showTab('nodes') },
    h('span', { class: 'label' }, t('home.node')),
    h('span', { class: `node-row-name${name ? '' : ' muted'}` }, text),
    chevronIcon(h));
}

export function homeView(h, t, state, actions) {
  return h('div', { class: 'view home' },
    h('h1', { class: 'sr-only' }, t('nav.home')),
    accountCard(h, t, state, actions),
    connectPanel(h, t, state, actions),
    liveRow(h, t, state),
    nodeRow(h, t, state, actions));
}
