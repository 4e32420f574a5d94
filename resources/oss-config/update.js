  // ---- client update check ----------------------------------------------------------------

  const WRAPPER_FIELDS = ['data', 'result', 'update'];
  const VERSION_FIELDS = ['version', 'latest_version', 'latestVersion', 'mac_version', 'macos_version',
                          'darwin_version', 'app_version', 'client_version'];
  const DOWNLOAD_FIELDS = ['download_url', 'downloadUrl', 'url', 'dmg', 'download', 'file_url', 'link', 'mac_url',
                           'macos_url', 'darwin_url', 'mac_download_url', 'macos_download_url',
                           'darwin_download_url'];
  const MESSAGE_FIELDS = ['message', 'note', 'changelog'];
  const PLATFORM_FIELDS = [SETTINGS.platform, 'darwin', 'macos', 'mac'].filter(function (name, index, all) {
    return all.indexOf(name) === index;
  });
  const DEFAULT_UPDATE_MESSAGE = '检测到新版本，是否下载更新？';

  function updateCheckUrls() {
    // The check never carries the user's token: it asks for a version, not for an account.
    const version = encodeURIComponent(SETTINGS.clientVersion);
    const urls = [];
    function add(url) {
      if (url && urls.indexOf(url) < 0) {
        urls.push(url);
      }
    }
    if (typeof currentConfig.update_url === 'string' && currentConfig.update_url) {
      add(currentConfig.update_url.split('{platform}').join(SETTINGS.platform).split('{version}').join(version));
    }
    const base = currentConfig.api;
    if (base) {
      add(base + '/api/v1/client/update?platform=' + SETTINGS.platform + '&version=' + version);
      add(base + '/api/v1/client/app/getVersion?platform=' + SETTINGS.platform + '&version=' + version);
    }
    return urls;
  }

  function fieldValue(source, names) {
    for (let i = 0; i < names.length; i++) {
      const value = source[names[i]];
      if ((typeof value === 'string' && value.trim() !== '') || (typeof value === 'number' && isFinite(value))) {
        return String(value);
      }
    }
    return '';
  }

  // A usable payload names a version and a download address, possibly inside a wrapper
  // member and a per-platform member, with the remote configuration as the last resort.
  function updateInfoFrom(payload) {
    if (!isObject(payload)) {
      return null;
    }
    let info = payload;
    const wrapper = WRAPPER_FIELDS.find(function (name) {
      return isObject(payload[name]);
    });
    if (wrapper) {
      info = payload[wrapper];
    }
    const platform = PLATFORM_FIELDS.find(function (name) {
      return isObject(info[name]);
    });
    if (platform) {
      info = Object.assign({}, info, info[platform]);
    }
    const version = fieldValue(info, VERSION_FIELDS) || fieldValue(currentConfig, ['version']);
    const url = fieldValue(info, DOWNLOAD_FIELDS) || fieldValue(currentConfig, ['download_url']);
    // Only an https address may be offered for download: anything else could be swapped on
    // the way.
    if (!version || !/^https:\/\//i.test(url)) {
      return null;
    }
    return {
      version: version,
      url: url,
      force: info.force === true || info.force_update === true || currentConfig.force_update === true,
      message: fieldValue(info, MESSAGE_FIELDS),
    };
  }

  function versionPieces(version) {
    return String(version).split(/[.-]/).map(function (piece) {
      const number = Number(piece);
      return isFinite(number) ? number : 0;
    });
  }

  function compareVersions(left, right) {
    const a = versionPieces(left);
    const b = versionPieces(right);
    for (let i = 0; i < Math.max(a.length, b.length); i++) {
      const difference = (a[i] || 0) - (b[i] || 0);
      if (difference !== 0) {
        return difference < 0 ? -1 : 1;
      }
    }
    return 0;
  }

  // window.open of an http(s) address reaches the system browser through the web runtime.
  function openDownload(url) {
    window.open(url, '_blank');
  }

  // Every version other than this client's is offered, older ones too: the panel decides
  // which build users should run.
  function offerUpdate(info) {
    if (compareVersions(info.version, SETTINGS.clientVersion) === 0) {
      return;
    }
    // Even a forced update downloads only once the user agrees.
    const text = '发现新版本 ' + info.version + '\n\n' + (info.message || DEFAULT_UPDATE_MESSAGE) +
                 '\n\n点击确定下载更新包。';
    if (typeof window.confirm === 'function' && window.confirm(text)) {
      openDownload(info.url);
    }
  }

  function runUpdateCheck(urls) {
    let index = 0;
    function next() {
      if (index >= urls.length) {
        return Promise.resolve(null);
      }
      const url = withQuery(urls[index], '_t', Date.now());
      index += 1;
      return fetchText(url).then(function (text) {
        return updateInfoFrom(JSON.parse(text));
      }).then(function (info) {
        if (!info) {
          return next();
        }
        window.__QEVJS_UPDATE__ = info;
        try {
          offerUpdate(info);
        } catch (_) {
          // A page without dialogs simply is not asked.
        }
        return info;
      }, next);
    }
    return next();
  }
