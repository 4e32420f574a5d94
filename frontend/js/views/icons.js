// Inline icons (no icon fonts, nothing fetched); decorative, so hidden from assistive tools.

function icon(h, className, ...shapes) {
  return h('svg', {
    class: `icon ${className}`,
    viewBox: '0 0 24 24',
    'aria-hidden': 'true',
    focusable: 'false',
  }, ...shapes);
}

const STROKE = { fill: 'none', stroke: 'currentColor', 'stroke-width': '2', 'stroke-linecap': 'round', 'stroke-linejoin': 'round' };

export function powerIcon(h) {
  return icon(h, 'icon-power',
    h('path', { ...STROKE, d: 'M12 3v8' }),
    h('path', { ...STROKE, d: 'M6.3 7.2a8 8 0 1 0 11.4 0' }));
}

export function chevronIcon(h) {
  return icon(h, 'icon-chevron', h('path', { ...STROKE, d: 'M9 6l6 6-6 6' }));
}

export function checkIcon(h) {
  return icon(h, 'icon-check', h('path', { ...STROKE, d: 'M5 12.5l4.5 4.5L19 7.5' }));
}

export function homeIcon(h) {
  return icon(h, 'icon-tab', h('path', { ...STROKE, d: 'M4 11l8-7 8 7v9a1 1 0 0 1-1 1h-5v-6h-4v6H5a1 1 0 0 1-1-1z' }));
}

export function nodesIcon(h) {
  return icon(h, 'icon-tab',
    h('circle', { ...STROKE, cx: '12', cy: '12', r: '9' }),
    h('path', { ...STROKE, d: 'M3 12h18M12 3c2.5 2.6 3.8 5.6 3.8 9s-1.3 6.4-3.8 9c-2.5-2.6-3.8-5.6-3.8-9S9.5 5.6 12 3z' }));
}

export function settingsIcon(h) {
  return icon(h, 'icon-tab',
    h('path', { ...STROKE, d: 'M4 7h10M18 7h2M4 17h2M10 17h10' }),
    h('circle', { ...STROKE, cx: '16', cy: '7', r: '2' }),
    h('circle', { ...STROKE, cx: '8', cy: '17', r: '2' }));
}

export function activityIcon(h) {
  return icon(h, 'icon-tab', h('path', { ...STROKE, d: 'M3 12h4l3-8 4 16 3-8h4' }));
}
