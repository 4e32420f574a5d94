  // ---- the core's proxy table as the client may see it -------------------------------------

  // Pseudo-nodes that only display account information, and strategy groups the user is
  // not meant to pick. Matched after trimming, case-sensitively.
  const HIDDEN_EXACT_NAMES = Object.freeze([
    '自动选择', '自動選擇', 'Auto Select', 'Automatic', 'Auto', '自動選択', '자동 선택',
    '故障转移', '故障轉移', 'Fallback', 'フェイルオーバー', '장애 조치', 'DIRECT', 'REJECT',
  ]);

  const HIDDEN_PREFIXES = Object.freeze([
    '剩余流量', '剩餘流量', '距离下次重置', '距離下次重置', '下次重置', '套餐到期',
    'Remaining Traffic', 'Next Reset', 'Reset', 'Plan Expires', 'Expires',
    '残り通信量', '次回リセット', 'プラン期限', '有効期限',
    '남은 트래픽', '다음 초기화', '플랜 만료', '만료',
  ]);

  function isHiddenProxyChoice(name) {
    if (typeof name !== 'string') {
      return false;
    }
    const trimmed = name.trim();
    if (trimmed === '') {
      return false;
    }
    return HIDDEN_EXACT_NAMES.indexOf(trimmed) >= 0 || HIDDEN_PREFIXES.some(function (prefix) {
      return trimmed.indexOf(prefix) === 0;
    });
  }

  function filteredProxyItem(item) {
    if (typeof item.name === 'string' && isHiddenProxyChoice(item.name)) {
      return null;
    }
    const out = Object.assign({}, item);
    const all = item.all;
    if (Array.isArray(all) && all.every(function (member) { return typeof member === 'string'; })) {
      out.all = all.filter(function (member) {
        return !isHiddenProxyChoice(member);
      });
      if (typeof item.now === 'string' && isHiddenProxyChoice(item.now)) {
        out.now = out.all.length ? out.all[0] : '';
      }
    }
    return out;
  }

  function proxiesForClient(table) {
    const out = {};
    Object.keys(table).forEach(function (key) {
      if (isHiddenProxyChoice(key)) {
        return;
      }
      const entry = table[key];
      if (!isPlainObject(entry)) {
        out[key] = entry;
        return;
      }
      const filtered = filteredProxyItem(entry);
      if (filtered) {
        out[key] = filtered;
      }
    });
    return out;
  }

  // Only the controller's full table is filtered; everything else passes as it came.
  function normalizeControllerAnswer(url, body) {
    if (!nonEmptyString(body)) {
      return body;
    }
    const parsed = parseHttpUrl(url);
    if (!parsed || !isControllerUrl(parsed) || parsed.pathname !== '/proxies') {
      return body;
    }
    try {
      const json = JSON.parse(body);
      if (!isPlainObject(json) || !isPlainObject(json.proxies)) {
        return body;
      }
      json.proxies = proxiesForClient(json.proxies);
      return JSON.stringify(json);
    } catch (_) {
      return body;
    }
  }
