// Activity: the core's live connections (close one or all) and its log (level filter, copy).
import { formatBytes } from '../format.js';

const PANELS = [['connections', 'activity.connections'], ['logs', 'activity.logs']];
const LEVELS = [
  ['debug', 'activity.level.debug'], ['info', 'activity.level.info'],
  ['warning', 'activity.level.warning'], ['error', 'activity.level.error'],
];

// "12 s", "3 min", "2 h" since the connection opened.
function duration(start, now) {
  const seconds = Math.max(0, Math.round((now - Date.parse(start)) / 1000));
  if (!Number.isFinite(seconds)) {
    return '';
  }
  return seconds < 60 ? `${seconds} s` : seconds < 3600 ? `${Math.floor(seconds / 60)} min` : `${Math.floor(seconds / 3600)} h`;
}

function connectionItem(h, t, state, actions, connection) {
  const chain = Array.isArray(connection.chains) ? connection.chains.slice().reverse().join(' → ') : '';
  return h('li', { class: 'connection' },
    h('div', { class: 'connection-main' },
      h('span', { class: 'connection-host' }, connection.host || connection.destination),
      h('span', { class: 'connection-route muted' }, [chain, connection.rule].filter(Boolean).join(' · '))),
    h('div', { class: 'connection-numbers' },
      h('span', {}, `↑ ${formatBytes(connection.upload || 0)} ↓ ${formatBytes(connection.download || 0)}`),
      h('span', { class: 'muted' }, duration(connection.start, state.now()))),
    h('button', {
      class: 'close-button',
      key: `close:${connection.id}`,
      'aria-label': t('activity.close', { host: connection.host || connection.destination }),
      onclick: () => actions.closeConnection(connection.id),
    }, '×'));
}

function connectionsPanel(h, t, state, actions) {
  const list = state.activity.connections;
  return [
    h('div', { class: 'toolbar' },
      h('span', { class: 'count' }, t('activity.count', { count: list.length })),
      h('button', {
        class: 'button secondary small',
        key: 'close-all',
        disabled: list.length === 0,
        onclick: actions.closeAllConnections,
      }, t('activity.closeAll'))),
    list.length === 0 ? h('p', { class: 'empty muted' }, t('activity.noConnections'))
      : h('ul', { class: 'connection-list' }, list.map((c) => connectionItem(h, t, state, actions, c))),
  ];
}

function logsPanel(h, t, state, actions) {
  const lines = state.activity.logs;
  return [
    h('div', { class: 'toolbar' },
      h('label', { class: 'level' }, t('activity.level'),
        h('select', { key: 'log-level', onchange: (event) => actions.setLogLevel(event.target.value) },
          LEVELS.map(([level, key]) => h('option', { value: level, selected: state.activity.level === level ? true : null }, t(key))))),
      h('button', {
        class: 'button secondary small',
        key: 'copy-logs',
        disabled: lines.length === 0,
        onclick: actions.copyLogs,
      }, t(state.activity.copied ? 'activity.copied' : 'activity.copy'))),
    lines.length === 0 ? h('p', { class: 'empty muted' }, t('activity.noLogs'))
      : h('ol', { class: 'log-list' }, lines.map((line) => h('li', { class: `log-line log-${line.level}` },
        h('span', { class: 'log-level' }, line.level), ' ', line.text))),
  ];
}

export function activityView(h, t, state, actions) {
  const view = state.activity.view;
  return h('div', { class: 'view activity' },
    h('div', { class: 'toolbar' },
      h('h1', { class: 'view-title' }, t('nav.activity')),
      h('div', { class: 'segmented', role: 'tablist' },
        PANELS.map(([name, key]) => h('button', {
          role: 'tab',
          key: `activity:${name}`,
          'aria-selected': view === name ? 'true' : 'false',
          onclick: () => actions.showActivity(name),
        }, t(key))))),
    ...(view === 'logs' ? logsPanel(h, t, state, actions) : connectionsPanel(h, t, state, actions)));
}
