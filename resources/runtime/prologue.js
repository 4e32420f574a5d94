// qev web runtime. Injected at document start into every frame, before any frontend code,
// it gives the frontend the desktop environment it was written for (require, process,
// electron, credential files, panel and controller requests), backed by the native bridge.
// Assembled from resources/runtime/*.js in the order of manifest.json; one function scope,
// so nothing reaches the page's globals except what is published on window on purpose.
(function () {
  'use strict';

  if (window.__QEV_NATIVE_BRIDGE_INSTALLED__) {
    return;
  }
  window.__QEV_NATIVE_BRIDGE_INSTALLED__ = true;
  window.__QEV_NATIVE__ = true;

  // Values fixed when the script is assembled for a platform and a deployment.
  const BUILD = Object.freeze({
    platform: '@QEV_PLATFORM@',
    defaultHome: '@QEV_DEFAULT_HOME@',
    userDataDir: '@QEV_USER_DATA_DIR@',
    cipherKey: '@QEV_CIPHER_KEY@',
    apiBaseCipher: Object.freeze([@QEV_PANEL_API_BASE_CIPHER@]),
  });

  const HTTP_PROXY_PORT = 33210;
  const SOCKS_PROXY_PORT = 33211;
  const CONTROLLER_PORT = 33212;
  const CONTROLLER_BASE = 'http://127.0.0.1:' + CONTROLLER_PORT;
  const PRODUCT_GROUP = 'QEV加速';
  const ALIAS_GROUP = 'SELECT';
