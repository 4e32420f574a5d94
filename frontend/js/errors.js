// Errors in words. Panel failures keep the panel's own message (it knows best why); native
// failures arrive as error texts of the bridge and are mapped to sentences a user can act on.
// Messages are kept as { key, params } (translated when shown, so a language switch applies to
// them too) or { text } for words that come from the panel as they are.

// Bridge error texts and the table key each one maps to; the texts are the native side's.
const NATIVE_ERRORS = [
  [/^NODE_UNAVAILABLE$/, 'connect.unavailable'],
  [/^mihomo start timeout$/, 'error.coreTimeout'],
  [/^mihomo not running$/, 'error.coreDown'],
  [/^mihomo restart timeout after TUN change$/, 'error.tunTimeout'],
  [/^missing subscribe URL$/, 'error.noSubscription'],
  [/^native message handler \w+ unavailable$/, 'error.noApp'],
];

export function errorText(error) {
  if (error && typeof error.message === 'string') {
    return error.message;
  }
  return error == null ? '' : String(error);
}

export function isNodeUnavailable(error) {
  return errorText(error).trim() === 'NODE_UNAVAILABLE';
}

export function isCoreDown(error) {
  return errorText(error).trim() === 'mihomo not running';
}

// A native (bridge) error as a message.
export function nativeErrorMessage(error) {
  const text = errorText(error).trim();
  for (const [pattern, key] of NATIVE_ERRORS) {
    if (pattern.test(text)) {
      return { key };
    }
  }
  const subscribe = /^subscribe HTTP (\d+)$/.exec(text);
  if (subscribe) {
    return { key: 'error.subscribeHttp', params: { status: subscribe[1] } };
  }
  if (/network|timed out|timeout was reached|resolve host|couldn't connect|could not connect|connection refused|failed to connect/i.test(text)) {
    return { key: 'error.network' };
  }
  return { key: 'error.unknown', params: { detail: text || '?' } };
}

// A failed panel answer (see panel.js) as a message.
export function panelFailureMessage(failure) {
  if (!failure) {
    return { key: 'error.unknown', params: { detail: '?' } };
  }
  if (failure.message && (failure.kind === 'panel' || failure.kind === 'auth')) {
    return { text: failure.message };
  }
  switch (failure.kind) {
    case 'network':
      return { key: 'error.network' };
    case 'format':
      return { key: 'error.badReply', params: { status: failure.status } };
    case 'credential':
      return { key: 'login.noCredential' };
    case 'auth':
      return { key: 'login.expired' };
    default:
      return { key: 'error.http', params: { status: failure.status } };
  }
}

// A message in the active language; a message may nest another as its detail.
export function say(t, message) {
  if (!message) {
    return '';
  }
  if (typeof message.text === 'string') {
    return message.text;
  }
  const params = {};
  for (const [name, value] of Object.entries(message.params || {})) {
    params[name] = value && typeof value === 'object' ? say(t, value) : value;
  }
  return t(message.key, params);
}
