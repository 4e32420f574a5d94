// qev frontend configuration, served to the page from memory as /qevjs-oss-config.js. It
// publishes the configuration (API base, update addresses), points the page's "/api"
// requests at the API base, loads the remote configuration document and offers client
// updates. Assembled from resources/oss-config/*.js in the order of manifest.json.
(function () {
  'use strict';

  // Values fixed when the script is assembled for a platform and a deployment.
  const SETTINGS = Object.freeze({
    platform: '@QEV_PLATFORM@',
    clientVersion: '@QEV_CLIENT_VERSION@',
    cipherKey: '@QEV_CIPHER_KEY@',
    remoteConfigCipher: Object.freeze([@QEV_REMOTE_CONFIG_URL_CIPHER@]),
    apiBaseCipher: Object.freeze([@QEV_PANEL_API_BASE_CIPHER@]),
  });

  const UPDATE_CHECK_DELAY_MS = 2000;
