  // ---- the configuration object -----------------------------------------------------------

  const REMOTE_CONFIG_URL = decipherText(SETTINGS.remoteConfigCipher, SETTINGS.cipherKey);
  const FALLBACK_CONFIG = Object.freeze({ api: decipherText(SETTINGS.apiBaseCipher, SETTINGS.cipherKey) });

  let currentConfig = {};

  function firstNonEmpty(values) {
    for (let i = 0; i < values.length; i++) {
      if (typeof values[i] === 'string' && values[i].trim() !== '') {
        return values[i];
      }
    }
    return '';
  }

  // Merges a configuration document over the current one. A document's own API address
  // (under any of its names) wins over the one already in force.
  function applyConfig(next) {
    if (!isObject(next)) {
      return currentConfig;
    }
    const merged = Object.assign({}, currentConfig, next);
    const api = firstNonEmpty([next.api, next.api_base, next.base_url]) ||
                firstNonEmpty([merged.api, merged.api_base, merged.base_url]);
    merged.api = api.replace(/\/+$/, '');
    const update = next.update;
    if (isObject(update)) {
      const checkUrl = update.url || update.check_url;
      if (checkUrl) {
        merged.update_url = checkUrl;
      }
      const downloadUrl = update.download_url || update.dmg;
      if (downloadUrl) {
        merged.download_url = downloadUrl;
      }
    }
    currentConfig = merged;
    window.__QEVJS_OSS_CONFIG__ = merged;
    window.__QEVJS_API_BASE__ = merged.api;
    return merged;
  }
