// The login state lives where the runtime script keeps it: local storage "token" (the
// subscription token), "auth_data" and "authorization" (session credentials). The runtime
// stores them itself when the login answer passes through it; the frontend only fills what is
// missing (a page without the runtime) and clears them at logout.

export const LANGUAGE_KEY = 'qev.language';
export const LAST_SUBSCRIBE_KEY = '__nativeLastSubscribeUrl';
const SESSION_KEYS = ['token', 'auth_data', 'authorization', 'is_admin'];

function read(storage, key) {
  try {
    const value = storage ? storage.getItem(key) : null;
    return typeof value === 'string' ? value : '';
  } catch (_) {
    return '';
  }
}

function write(storage, key, value) {
  try {
    storage.setItem(key, String(value));
  } catch (_) {
    // Storage refused (private mode, quota): the session then lasts as long as the page.
  }
}

function remove(storage, key) {
  try {
    storage.removeItem(key);
  } catch (_) {
    // Nothing to clear.
  }
}

export function hasSession(storage) {
  return Boolean(read(storage, 'auth_data') || read(storage, 'authorization'));
}

// The credential for the panel's user routes. "authorization" holds the one that last worked
// (the runtime stores it after a retry) unless it is merely the subscription token, which the
// user routes refuse; then "auth_data", the session credential of the login answer. A wrong
// first choice costs one retry: the runtime tries every stored form on a 403.
export function sessionCredential(storage) {
  const authorization = read(storage, 'authorization');
  const token = read(storage, 'token');
  if (authorization && authorization !== token) {
    return authorization;
  }
  return read(storage, 'auth_data') || authorization;
}

export function adoptLogin(storage, { token, authData, isAdmin }) {
  if (token && !read(storage, 'token')) {
    write(storage, 'token', token);
  }
  if (authData && !read(storage, 'auth_data')) {
    write(storage, 'auth_data', authData);
  }
  if (!read(storage, 'authorization') && (authData || token)) {
    write(storage, 'authorization', authData || token);
  }
  if (isAdmin !== undefined && isAdmin !== null && !read(storage, 'is_admin')) {
    write(storage, 'is_admin', isAdmin);
  }
}

export function clearSession(storage) {
  for (const key of SESSION_KEYS) {
    remove(storage, key);
  }
}

export function lastSubscribeUrl(storage) {
  return read(storage, LAST_SUBSCRIBE_KEY);
}

export function savedLanguage(storage) {
  return read(storage, LANGUAGE_KEY);
}

export function saveLanguage(storage, language) {
  write(storage, LANGUAGE_KEY, language);
}
