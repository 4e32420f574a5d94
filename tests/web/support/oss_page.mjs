// The in-memory configuration script on a page whose servers a test plays.
import { deployment, waitFor } from './harness.mjs';
export const VERSION = encodeURIComponent(deployment.clientVersion);
export const PLATFORM = deployment.platform;
export const FALLBACK_API = deployment.panelApiBase.replace(/\/+$/, '');

export function isRemoteConfigRequest(url) {
  return url.startsWith(deployment.remoteConfigUrl + (deployment.remoteConfigUrl.includes('?') ? '&t=' : '?t='));
}

// A page with only the configuration script; `answers(url)` plays every server it asks:
// a string is a 200 body, a number a bodiless status, an Error a transport failure.
export function ossPage({ remote = 404, answers = () => 404, storage = {}, confirm = true, before = null } = {}) {
  const seen = { confirms: [], opened: [], xhrOpened: [] };
  return {
    seen,
    options: {
      scripts: ['ossConfig'],
      storage,
      timerCap: 0,
      before: (window, page) => {
        page.pageFetchAnswer = (url) => {
          const answer = isRemoteConfigRequest(url) ? (typeof remote === 'function' ? remote(url) : remote) : answers(url);
          if (answer instanceof Error) {
            throw answer;
          }
          return typeof answer === 'number' ? new Response(null, { status: answer })
                                            : new Response(typeof answer === 'string' ? answer : JSON.stringify(answer));
        };
        window.confirm = (text) => { seen.confirms.push(text); return confirm; };
        window.open = (...args) => { seen.opened.push(args); return null; };
        const realOpen = window.XMLHttpRequest.prototype.open;
        window.XMLHttpRequest.prototype.open = function (method, url, ...rest) {
          seen.xhrOpened.push(url);
          return realOpen.call(this, method, url, ...rest);
        };
        if (before) {
          before(window, page);
        }
      },
    },
  };
}

export const configApplied = (window) => waitFor(() => window.__QEVJS_UPDATE_CHECK_URLS__, { what: 'configuration' });
