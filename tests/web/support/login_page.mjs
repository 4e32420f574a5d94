// Pages for the login adaptation tests.
import { createDecipheriv } from 'node:crypto';
export const API = 'https://panel.test';
export const LOGIN = '/api/v1/passport/auth/login';

export function pageOptions(extra = {}) {
  const { before, ...rest } = extra;
  return {
    url: 'http://app.test/login?next=1',
    cryptoJs: true,
    ...rest,
    before: (window, page) => {
      window.__QEVJS_API_BASE__ = API;
      if (before) {
        before(window, page);
      }
    },
  };
}

// Decrypts a legacy credential with Node's own AES, independently of the page library.
export function openLegacyCredential(legacy) {
  const key = legacy.slice(-16);
  const decipher = createDecipheriv('aes-128-ecb', Buffer.from(key, 'utf8'), null);
  const plainText = Buffer.concat([decipher.update(Buffer.from(legacy.slice(0, -16), 'base64')), decipher.final()]);
  return { key, payload: JSON.parse(plainText.toString('utf8')) };
}

export async function login(window, body) {
  const response = await window.fetch(LOGIN, { method: 'POST', body: '{"email":"e","password":"p"}' });
  return response.text();
}
