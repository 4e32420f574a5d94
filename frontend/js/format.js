// Pure formatting of what the panel and the core report: traffic, dates, days, latency.

const BYTE_UNITS = ['B', 'KB', 'MB', 'GB', 'TB', 'PB'];
const DAY_MS = 24 * 60 * 60 * 1000;

// A number from a panel field that may arrive as a number, a numeric string or nothing.
export function toNumber(value) {
  if (typeof value === 'number') {
    return Number.isFinite(value) ? value : null;
  }
  if (typeof value === 'string' && value.trim() !== '' && Number.isFinite(Number(value))) {
    return Number(value);
  }
  return null;
}

// Bytes in binary units, as the panel counts them: "0 B", "512 B", "1.5 KB", "23.4 GB", "100 GB".
// Up to three significant figures, never trailing zeros.
export function formatBytes(value) {
  let bytes = toNumber(value);
  if (bytes === null || bytes <= 0) {
    return '0 B';
  }
  let unit = 0;
  while (bytes >= 1024 && unit < BYTE_UNITS.length - 1) {
    bytes /= 1024;
    unit += 1;
  }
  if (unit === 0) {
    return `${Math.round(bytes)} B`;
  }
  const digits = bytes < 10 ? 2 : bytes < 100 ? 1 : 0;
  let text = bytes.toFixed(digits);
  if (text.includes('.')) {
    text = text.replace(/0+$/, '').replace(/\.$/, '');
  }
  // 1023.9 KB rounds to "1024 KB"; say "1 MB" instead.
  if (Number(text) >= 1024 && unit < BYTE_UNITS.length - 1) {
    return `1 ${BYTE_UNITS[unit + 1]}`;
  }
  return `${text} ${BYTE_UNITS[unit]}`;
}

// Used and total traffic of a subscription answer (`u` + `d` of `transfer_enable`).
// `ratio` is the used share clamped to 0..1, or null when the total is unknown.
export function trafficSummary(subscription) {
  const source = subscription || {};
  const upload = toNumber(source.u) || 0;
  const download = toNumber(source.d) || 0;
  const used = Math.max(0, upload + download);
  const total = toNumber(source.transfer_enable);
  if (total === null || total <= 0) {
    return { used, total: null, left: null, ratio: null };
  }
  return { used, total, left: Math.max(0, total - used), ratio: Math.min(1, used / total) };
}

// "2026-12-31" for unix seconds, in the given IANA time zone (the system's when omitted).
export function formatDate(unixSeconds, timeZone) {
  const seconds = toNumber(unixSeconds);
  if (seconds === null) {
    return '';
  }
  const options = { year: 'numeric', month: '2-digit', day: '2-digit' };
  if (timeZone) {
    options.timeZone = timeZone;
  }
  const parts = {};
  for (const part of new Intl.DateTimeFormat('en-US', options).formatToParts(new Date(seconds * 1000))) {
    parts[part.type] = part.value;
  }
  return `${parts.year}-${parts.month}-${parts.day}`;
}

// What the expiry of a subscription means now: never (no expiry), expired, or a date with the
// whole days left (rounded up, so the last day counts as one).
export function expiryState(expiredAt, nowMs, timeZone) {
  const seconds = toNumber(expiredAt);
  if (seconds === null || seconds <= 0) {
    return { kind: 'never' };
  }
  const date = formatDate(seconds, timeZone);
  const leftMs = seconds * 1000 - nowMs;
  if (leftMs <= 0) {
    return { kind: 'expired', date };
  }
  return { kind: 'date', date, days: Math.ceil(leftMs / DAY_MS) };
}

// The panel's `reset_day` counts the days until the traffic is reset; null means no reset.
export function resetState(resetDay) {
  const days = toNumber(resetDay);
  if (days === null || days < 0) {
    return { kind: 'none' };
  }
  return days === 0 ? { kind: 'today' } : { kind: 'days', days: Math.round(days) };
}

// How a latency reads and looks: fast under 200 ms, slow from 500 ms.
export function latencyGrade(ms) {
  if (typeof ms !== 'number' || !(ms > 0)) {
    return 'none';
  }
  if (ms < 200) {
    return 'fast';
  }
  return ms < 500 ? 'fair' : 'slow';
}
