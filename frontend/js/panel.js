// The panel's API as the frontend uses it. Requests go out with the page's fetch and relative
// "/api/v1/..." paths; the runtime script rewrites and routes them. Both panel generations are
// understood: v1 answers {"data":...}, v2 wraps it in {"status":"success"|"fail",...}; errors
// carry {"message":...}; logged out is 403.

export const LOGIN_PATH = '/api/v1/passport/auth/login';
export const SUBSCRIBE_PATH = '/api/v1/user/getSubscribe';
export const GUEST_CONFIG_PATH = '/api/v1/guest/comm/config';

function isObject(value) {
  return value !== null && typeof value === 'object' && !Array.isArray(value);
}

function parseJson(text) {
  try {
    return { ok: true, value: JSON.parse(text) };
  } catch (_) {
    return { ok: false };
  }
}

// The text a failed answer carries: `message` (or `msg`), else the first validation error.
function failureMessage(body) {
  if (!isObject(body)) {
    return '';
  }
  for (const key of ['message', 'msg']) {
    if (typeof body[key] === 'string' && body[key].trim() !== '') {
      return body[key].trim();
    }
  }
  if (isObject(body.errors)) {
    for (const list of Object.values(body.errors)) {
      const first = Array.isArray(list) ? list[0] : list;
      if (typeof first === 'string' && first.trim() !== '') {
        return first.trim();
      }
    }
  }
  return '';
}

// One panel answer as { ok: true, data } or { ok: false, kind, status, message }.
// kind: 'auth' (logged out), 'panel' (the panel said why), 'http' (a status without a reason),
// 'format' (a body that is not the panel's JSON).
export function readPanelAnswer(status, text) {
  const parsed = parseJson(text);
  const body = parsed.ok ? parsed.value : undefined;
  const success = status >= 200 && status < 300;
  if (success && isObject(body) && body.status !== 'fail' && body.data !== undefined) {
    return { ok: true, data: body.data };
  }
  const message = failureMessage(body);
  if (status === 401 || status === 403) {
    return { ok: false, kind: 'auth', status, message };
  }
  if (message && (!success || (isObject(body) && body.status === 'fail'))) {
    return { ok: false, kind: 'panel', status, message };
  }
  if (!success && parsed.ok) {
    return { ok: false, kind: 'http', status, message: '' };
  }
  return { ok: false, kind: success ? 'format' : 'http', status, message: '' };
}

// Sends one request and reads the answer; a failure to reach the panel is { kind: 'network' }.
export async function panelRequest(fetchFn, path, { method = 'GET', body, credential, language } = {}) {
  const headers = { Accept: 'application/json' };
  if (body !== undefined) {
    headers['Content-Type'] = 'application/json';
  }
  if (credential) {
    headers.Authorization = credential;
  }
  if (language) {
    // Panels pick the language of their messages from this header.
    headers['Content-Language'] = language === 'en' ? 'en-US' : 'zh-CN';
  }
  let response;
  let text;
  try {
    response = await fetchFn(path, {
      method,
      headers,
      body: body === undefined ? undefined : JSON.stringify(body),
    });
    text = await response.text();
  } catch (error) {
    return { ok: false, kind: 'network', status: 0, message: error && error.message ? error.message : '' };
  }
  return readPanelAnswer(response.status, text);
}

// Logs in; success carries the session values the runtime script stores.
export async function login(fetchFn, email, password, language) {
  const answer = await panelRequest(fetchFn, LOGIN_PATH, {
    method: 'POST',
    body: { email, password },
    language,
  });
  if (!answer.ok) {
    // A wrong password is refused with 403 by some panels; that is not a lost session.
    return answer.kind === 'auth' && answer.message ? { ...answer, kind: 'panel' } : answer;
  }
  const data = isObject(answer.data) ? answer.data : {};
  const token = typeof data.token === 'string' ? data.token : '';
  const authData = typeof data.auth_data === 'string' ? data.auth_data : '';
  if (!token && !authData) {
    return { ok: false, kind: 'credential', status: 200, message: '' };
  }
  return { ok: true, data: { token, authData, isAdmin: data.is_admin } };
}

// The account summary; `data` is the panel's subscription object.
export async function getSubscribe(fetchFn, credential, language) {
  const answer = await panelRequest(fetchFn, SUBSCRIBE_PATH, { credential, language });
  if (answer.ok && !isObject(answer.data)) {
    return { ok: false, kind: 'format', status: 200, message: '' };
  }
  return answer;
}

// The panel's public configuration; only the website address is used.
export async function getWebsite(fetchFn) {
  const answer = await panelRequest(fetchFn, GUEST_CONFIG_PATH);
  if (!answer.ok || !isObject(answer.data)) {
    return '';
  }
  const url = answer.data.app_url;
  return typeof url === 'string' && /^https?:\/\//i.test(url.trim()) ? url.trim() : '';
}
