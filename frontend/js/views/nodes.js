// Nodes: the members of the selector group, searched and sorted, their latency on demand (all,
// or one), selection, and an update of the subscription.
import { say } from '../errors.js';
import { latencyGrade } from '../format.js';
import { SELECTOR_GROUP } from '../servers.js';
import { checkIcon } from './icons.js';

const SORTS = [['order', 'nodes.sortOrder'], ['name', 'nodes.sortName'], ['latency', 'nodes.sortLatency']];

function delayBadge(h, t, node, result) {
  if (result === 'testing') {
    return h('span', { class: 'delay delay-testing' }, t('nodes.testing'));
  }
  const measured = result && result.delay ? result.delay : result ? null : node.delay;
  if (measured) {
    return h('span', { class: `delay delay-${latencyGrade(measured)}` }, t('nodes.delay', { ms: Math.round(measured) }));
  }
  if (result && result.failure) {
    return h('span', { class: 'delay delay-slow' }, t(result.failure === 'timeout' ? 'nodes.timeout' : 'nodes.delayFailed'));
  }
  return h('span', { class: 'delay delay-none' }, t('nodes.untested'));
}

function nodeItem(h, t, state, actions, node) {
  const nodes = state.nodes;
  const current = node.name === nodes.current;
  const switching = node.name === nodes.switching;
  return h('li', { class: 'node-item' },
    h('button', {
      class: `node${current ? ' node-current' : ''}`,
      key: `node:${node.name}`,
      'aria-pressed': current ? 'true' : 'false',
      disabled: Boolean(nodes.switching) && !switching,
      onclick: () => actions.selectNode(node.name),
    },
    h('span', { class: 'node-mark' }, current ? checkIcon(h) : null),
    h('span', { class: 'node-text' },
      h('span', { class: 'node-name' }, node.name),
      h('span', { class: 'node-type' },
        switching ? t('nodes.switching') : current ? t('nodes.current') : node.isGroup ? t('nodes.group') : node.type))),
    // Beside the row, not inside it: a click here tests the node and selects nothing.
    h('button', {
      class: 'delay-button',
      key: `test:${node.name}`,
      'aria-label': t('nodes.testOne', { name: node.name }),
      disabled: nodes.testing !== false,
      onclick: () => actions.testNode(node.name),
    }, delayBadge(h, t, node, nodes.delays[node.name])));
}

// The last measurement of a node in milliseconds, or Infinity when there is none.
function measuredDelay(nodes, node) {
  const result = nodes.delays[node.name];
  const delay = result && result.delay ? result.delay : result ? null : node.delay;
  return delay || Infinity;
}

// The list as shown: filtered by the search words (any letter case), then sorted.
function shownNodes(nodes) {
  const query = nodes.query.trim().toLowerCase();
  const list = query ? nodes.list.filter((node) => node.name.toLowerCase().includes(query)) : nodes.list.slice();
  if (nodes.sort === 'name') {
    list.sort((a, b) => a.name.localeCompare(b.name));
  } else if (nodes.sort === 'latency') {
    list.sort((a, b) => measuredDelay(nodes, a) - measuredDelay(nodes, b));
  }
  return list;
}

export function nodesView(h, t, state, actions) {
  const nodes = state.nodes;
  const list = nodes.list;
  const shown = shownNodes(nodes);
  let body;
  if (list.length === 0) {
    body = h('p', { class: 'empty muted' }, t(nodes.loaded ? 'nodes.empty' : 'nodes.loading'));
  } else if (shown.length === 0) {
    body = h('p', { class: 'empty muted' }, t('nodes.noMatch'));
  } else {
    body = h('ul', { class: 'node-list', 'aria-labelledby': 'nodes-title' },
      shown.map((node) => nodeItem(h, t, state, actions, node)));
  }
  const message = nodes.message;
  const testing = nodes.testing;
  return h('div', { class: 'view nodes' },
    h('div', { class: 'toolbar' },
      h('h1', { id: 'nodes-title', class: 'view-title' }, t('nodes.title'),
        list.length ? h('span', { class: 'count' }, t('nodes.count', { count: list.length })) : null),
      h('div', { class: 'toolbar-actions' },
        h('button', {
          class: 'button secondary small',
          key: 'test-latency',
          disabled: testing !== false || list.length === 0,
          'aria-busy': testing ? 'true' : null,
          onclick: actions.testLatency,
        }, testing ? t('nodes.testingProgress', testing) : t('nodes.test')),
        h('button', {
          class: 'button secondary small',
          key: 'refresh-subscription',
          disabled: nodes.refreshing,
          'aria-busy': nodes.refreshing ? 'true' : null,
          onclick: actions.refreshSubscription,
        }, t(nodes.refreshing ? 'nodes.refreshing' : 'nodes.refresh')))),
    list.length ? h('div', { class: 'node-filters' },
      nodes.groups.length > 1 ? h('select', {
        key: 'node-group',
        class: 'group-select',
        'aria-label': t('nodes.group'),
        onchange: (event) => actions.showGroup(event.target.value),
      }, nodes.groups.map((group) => h('option', { value: group, selected: nodes.group === group ? true : null },
        group === SELECTOR_GROUP ? t('nodes.mainGroup') : group))) : null,
      h('input', {
        type: 'search',
        key: 'node-search',
        class: 'search',
        placeholder: t('nodes.search'),
        'aria-label': t('nodes.search'),
        value: nodes.query,
        oninput: (event) => actions.searchNodes(event.target.value),
      }),
      h('select', { key: 'node-sort', 'aria-label': t('nodes.sort'), onchange: (event) => actions.sortNodes(event.target.value) },
        SORTS.map(([sort, key]) => h('option', { value: sort, selected: nodes.sort === sort ? true : null }, t(key))))) : null,
    message ? h('p', { class: message.error ? 'alert' : 'notice', role: message.error ? 'alert' : 'status' }, say(t, message)) : null,
    body);
}
