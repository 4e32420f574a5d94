  // ---- subscription warm-up ---------------------------------------------------------------

  // As soon as the frontend fetches the user's subscription information, the native side
  // gets the link, so the core is ready before the user presses connect.
  const SUBSCRIBE_INFO_PATH = /\/api\/v1\/user\/getSubscribe(?:\?|$)/;
  const LAST_SUBSCRIBE_KEY = '__nativeLastSubscribeUrl';

  function isSubscribeInfoUrl(url) {
    return typeof url === 'string' && SUBSCRIBE_INFO_PATH.test(url);
  }

  function subscriptionLinkFrom(body) {
    let data = null;
    try {
      data = dataMember(JSON.parse(body));
    } catch (_) {
      data = null;
    }
    const link = data && (data.subscribe_url || data.subscribeUrl || data.subscribe);
    if (!nonEmptyString(link)) {
      return '';
    }
    const token = storageGet('token');
    if (nonEmptyString(token)) {
      return apiBase() + '/api/v1/client/subscribe?token=' + encodeURIComponent(token) + '&flag=clash.meta';
    }
    return link;
  }

  function hasServers(answer) {
    if (Array.isArray(answer)) {
      return answer.length > 0;
    }
    return isPlainObject(answer) && Object.keys(answer).length > 0;
  }

  function applySubscription(link) {
    return callNative('updateConfig', [link]).then(function () {
      storageSet(LAST_SUBSCRIBE_KEY, link);
      nativeLog('native.subscribe.sync.ok');
    });
  }

  function syncSubscription(body) {
    const link = subscriptionLinkFrom(body);
    if (!link) {
      nativeLog('native.subscribe.sync.skip: no-url');
      return Promise.resolve();
    }
    if (link === storageGet(LAST_SUBSCRIBE_KEY)) {
      nativeLog('native.subscribe.sync.skip: unchanged');
      return callNative('getServers', []).then(function (servers) {
        if (hasServers(servers)) {
          nativeLog('native.subscribe.ensure.ok');
          return undefined;
        }
        nativeLog('native.subscribe.ensure.empty');
        return applySubscription(link);
      }).catch(function (error) {
        nativeLog('native.subscribe.ensure.error: ' + errorMessage(error));
      });
    }
    nativeLog('native.subscribe.sync.start');
    return applySubscription(link).catch(function (error) {
      nativeLog('native.subscribe.sync.error: ' + errorMessage(error));
    });
  }

  function startSubscriptionWarmUp(body) {
    if (window.__nativeSubscribeSyncStarted) {
      return;
    }
    window.__nativeSubscribeSyncStarted = true;
    later(function () {
      syncSubscription(body);
    }, 200);
  }

  // What every answer from the bridge goes through before the frontend sees it.
  function adaptAnswerBody(url, body) {
    let text = body == null ? '' : String(body);
    if (isLoginUrl(url)) {
      text = adaptLoginBody(text);
      persistLoginState(text);
    }
    if (isSubscribeInfoUrl(url)) {
      startSubscriptionWarmUp(text);
    }
    return text;
  }
