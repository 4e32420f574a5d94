// Nodes: the members of the selector group, their latency on demand, selection, and an update
// of the subscription.
import { say } from '../errors.js';
import { latencyGrade } from '../format.js';
import { checkIcon } from './icons.js';

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
        switching ? t('nodes.switching') : current ? t('nodes.current') : node.isGroup ? t('nodes.group') : node.type)),
    delayBadge(h, t, node, nodes.delays[node.name])));
}

export function nodesView(h, t, state, actions) {
  const nodes = state.nodes;
  const list = nodes.list;
  let body;
  if (list.length === 0) {
    body = h('p', { class: 'empty muted' }, t(nodes.loaded ? 'nodes.empty' : 'nodes.loading'));
  } else {
    body = h('ul', { class: 'node-list', 'aria-labelledby': 'nodes-title' },
      list.map((node) => nodeItem(h, t, state, actions, node)));
  }
  const message = nodes.message;
  return h('div', { class: 'view nodes' },
    h('div', { class: 'toolbar' },
      h('h1', { id: 'nodes-title', class: 'view-title' }, t('nodes.title'),
        list.length ? h('span', { class: 'count' }, t('nodes.count', { count: list.length })) : null),
      h('div', { class: 'toolbar-actions' },
        h('button', {
          class: 'button secondary small',
          key: 'test-latency',
          disabled: nodes.testing || list.length === 0,
          'aria-busy': nodes.testing ? 'true' : null,
          onclick: actions.testLatency,
        }, t(nodes.testing ? 'nodes.testing' : 'nodes.test')),
        h('button', {
          class: 'button secondary small',
          key: 'refresh-subscription',
          disabled: nodes.refreshing,
          'aria-busy': nodes.refreshing ? 'true' : null,
          onclick: actions.refreshSubscription,
        }, t(nodes.refreshing ? 'nodes.refreshing' : 'nodes.refresh')))),
    message ? h('p', { class: message.error ? 'alert' : 'notice', role: message.error ? 'alert' : 'status' }, say(t, message)) : null,
    body);
}
