// The node list from the core's proxy table (window.clash.getServers()) and the latency test
// through the core's controller.

export const SELECTOR_GROUP = 'SELECT';
export const CONTROLLER_BASE = 'http://127.0.0.1:33212';
export const DELAY_TEST_URL = 'http://www.gstatic.com/generate_204';
export const DELAY_TIMEOUT_MS = 5000;

const GROUP_TYPES = new Set(['selector', 'urltest', 'fallback', 'loadbalance', 'relay']);

function isObject(value) {
  return value !== null && typeof value === 'object' && !Array.isArray(value);
}

// The last delay the core measured for an entry, or null.
function lastDelay(entry) {
  const history = isObject(entry) && Array.isArray(entry.history) ? entry.history : [];
  const last = history[history.length - 1];
  const delay = isObject(last) ? Number(last.delay) : NaN;
  return delay > 0 ? delay : null;
}

function isSelector(entry) {
  return isObject(entry) && typeof entry.type === 'string' && entry.type.toLowerCase() === 'selector' &&
    Array.isArray(entry.all);
}

// The groups the user may switch: "SELECT" (the main group) first, then every other selector
// in table order, without GLOBAL and without the group "SELECT" is a copy of ("aliasOf").
export function selectorGroups(table) {
  if (!isObject(table)) {
    return [];
  }
  const main = table[SELECTOR_GROUP];
  const skipped = new Set([SELECTOR_GROUP, 'GLOBAL', isObject(main) ? main.aliasOf : undefined]);
  const others = Object.keys(table).filter((name) => !skipped.has(name) && isSelector(table[name]));
  return isSelector(main) ? [SELECTOR_GROUP, ...others] : others;
}

// { nodes: [{ name, type, isGroup, delay }], current } from the table getServers resolves
// (false or anything else unusable gives an empty list). The nodes are the members of the
// group (the "SELECT" group unless named) in its order; the native side has already removed
// the hidden choices.
export function nodeListFrom(table, groupName = SELECTOR_GROUP) {
  if (!isObject(table) || !isObject(table[groupName])) {
    return { nodes: [], current: '' };
  }
  const group = table[groupName];
  const members = Array.isArray(group.all) ? group.all : [];
  const seen = new Set();
  const nodes = [];
  for (const name of members) {
    if (typeof name !== 'string' || name.trim() === '' || seen.has(name)) {
      continue;
    }
    seen.add(name);
    const entry = table[name];
    const type = isObject(entry) && typeof entry.type === 'string' ? entry.type : '';
    nodes.push({ name, type, isGroup: GROUP_TYPES.has(type.toLowerCase()), delay: lastDelay(entry) });
  }
  const current = typeof group.now === 'string' && seen.has(group.now) ? group.now : '';
  return { nodes, current };
}

// The controller address of one node's delay test; the runtime routes it to the core.
export function delayTestUrl(name, testUrl = DELAY_TEST_URL, timeoutMs = DELAY_TIMEOUT_MS) {
  return `${CONTROLLER_BASE}/proxies/${encodeURIComponent(name)}/delay?timeout=${timeoutMs}` +
         `&url=${encodeURIComponent(testUrl)}`;
}

// A delay answer of the controller: { delay } on success, else { failure: 'timeout' | 'error' }.
export function readDelayAnswer(status, text) {
  if (status === 200) {
    try {
      const delay = Number(JSON.parse(text).delay);
      if (delay > 0) {
        return { delay };
      }
    } catch (_) {
      // An unreadable success is no measurement.
    }
    return { failure: 'error' };
  }
  return { failure: status === 504 || status === 408 ? 'timeout' : 'error' };
}

export async function measureDelay(fetchFn, name) {
  try {
    const response = await fetchFn(delayTestUrl(name), { method: 'GET' });
    return readDelayAnswer(response.status, await response.text());
  } catch (_) {
    return { failure: 'error' };
  }
}

// Runs `task` over `items` with at most `limit` at a time, reporting each result as it comes.
export async function forEachLimited(items, limit, task, onResult) {
  let next = 0;
  async function worker() {
    while (next < items.length) {
      const item = items[next++];
      onResult(item, await task(item));
    }
  }
  const workers = [];
  for (let i = 0; i < Math.min(limit, items.length); i++) {
    workers.push(worker());
  }
  await Promise.all(workers);
}
