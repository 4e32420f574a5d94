  // ---- logging hooks and the process object ---------------------------------------------

  // Credentials remembered from the last login outrank what the frontend stores itself:
  // the frontend writes its own, older credential form right after logging in.
  function rememberedCredential(key) {
    if (key === 'auth_data') {
      return window.__nativeLastLoginLegacyAuthData;
    }
    if (key === 'authorization') {
      return window.__nativeLastLoginServerAuthData || window.__nativeLastLoginToken;
    }
    if (key === 'token') {
      return window.__nativeLastLoginToken;
    }
    return undefined;
  }

  (function installStorageHook() {
    if (window.__nativeStorageLogged || typeof window.Storage !== 'function') {
      return;
    }
    window.__nativeStorageLogged = true;
    const proto = window.Storage.prototype;
    const pageSetItem = proto.setItem;
    proto.setItem = function setItem(key, value) {
      const remembered = rememberedCredential(String(key));
      return pageSetItem.call(this, key, nonEmptyString(remembered) ? remembered : value);
    };
  })();

  function describeLogArgument(arg) {
    try {
      if (arg != null && arg.stack) {
        return String(arg.stack);
      }
      if (arg !== null && typeof arg === 'object') {
        try {
          const json = JSON.stringify(arg);
          return json === undefined ? String(arg) : json;
        } catch (_) {
          return String(arg);
        }
      }
      return String(arg);
    } catch (_) {
      return '[unprintable]';
    }
  }

  (function installConsoleHooks() {
    const target = window.console;
    if (!target) {
      return;
    }
    ['warn', 'error'].forEach(function (level) {
      const pageFunction = target[level];
      target[level] = function () {
        const args = Array.prototype.slice.call(arguments);
        nativeLog('console.' + level + ': ' + args.map(describeLogArgument).join(' '));
        if (typeof pageFunction === 'function') {
          return pageFunction.apply(target, args);
        }
        return undefined;
      };
    });
  })();

  window.addEventListener('error', function (event) {
    nativeLog('window.error: ' + event.message + ' @ ' + event.filename + ':' + event.lineno + ':' +
              event.colno);
  });

  window.addEventListener('unhandledrejection', function (event) {
    const reason = event.reason;
    nativeLog('unhandledrejection: ' +
              (reason != null && reason.stack ? reason.stack : describeLogArgument(reason)));
  });

  (function installProcess() {
    if (!window.process) {
      window.process = {
        platform: BUILD.platform,
        env: { HOME: BUILD.defaultHome },
        cwd: function () {
          return '/';
        },
        nextTick: function (fn) {
          const args = Array.prototype.slice.call(arguments, 1);
          later(function () {
            fn.apply(null, args);
          });
        },
      };
    }
    if (!window.process.env) {
      window.process.env = {};
    }
    if (!window.process.env.HOME) {
      window.process.env.HOME = BUILD.defaultHome;
    }
  })();

  function homeFolder() {
    const env = window.process && window.process.env;
    return env && env.HOME ? String(env.HOME) : BUILD.defaultHome;
  }
