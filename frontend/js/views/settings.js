// Settings: routing mode, TUN, start at login, language, the website, the version, sign-out.
import { say } from '../errors.js';
import { LANGUAGES, LANGUAGE_NAMES } from '../i18n.js';
import { chevronIcon } from './icons.js';

export const MODES = Object.freeze(['rule', 'global', 'direct']);

function modeChoice(h, t, settings, actions, mode) {
  const id = `mode-${mode}`;
  return h('label', { class: 'choice', for: id },
    h('input', {
      type: 'radio',
      name: 'mode',
      id,
      key: id,
      value: mode,
      checked: settings.mode === mode,
      onchange: () => actions.setMode(mode),
    }),
    h('span', { class: 'choice-text' },
      h('span', { class: 'choice-title' }, t(`settings.mode.${mode}`)),
      h('span', { class: 'choice-hint' }, t(`settings.mode.${mode}.hint`))));
}

function switchRow(h, t, { id, title, hint, checked, busy, onchange }) {
  return h('div', { class: 'switch-row' },
    h('label', { class: 'switch-label', for: id },
      h('span', { class: 'choice-title' }, title),
      h('span', { class: 'choice-hint', id: `${id}-hint` }, hint)),
    h('input', {
      type: 'checkbox',
      role: 'switch',
      class: 'switch',
      id,
      key: id,
      checked,
      disabled: busy,
      'aria-busy': busy ? 'true' : null,
      'aria-describedby': `${id}-hint`,
      onchange: (event) => onchange(event.target.checked),
    }));
}

function message(h, t, value) {
  if (!value) {
    return null;
  }
  return h('p', { class: value.error ? 'alert' : 'notice', role: value.error ? 'alert' : 'status' }, say(t, value));
}

export function settingsView(h, t, state, actions) {
  const settings = state.settings;
  const email = state.account.data && typeof state.account.data.email === 'string' ? state.account.data.email : '';
  return h('div', { class: 'view settings' },
    h('h1', { class: 'view-title' }, t('settings.title')),
    h('section', { class: 'card stack' },
      h('fieldset', { class: 'modes' },
        h('legend', { class: 'card-title' }, t('settings.mode')),
        MODES.map((mode) => modeChoice(h, t, settings, actions, mode))),
      message(h, t, settings.modeMessage)),
    h('section', { class: 'card stack' },
      switchRow(h, t, {
        id: 'tun',
        title: t('settings.tun'),
        hint: t('settings.tun.hint'),
        checked: settings.tun,
        busy: settings.tunBusy,
        onchange: actions.setTun,
      }),
      message(h, t, settings.tunMessage),
      switchRow(h, t, {
        id: 'auto-launch',
        title: t('settings.autoLaunch'),
        hint: t('settings.autoLaunch.hint'),
        checked: settings.autoLaunch,
        busy: settings.autoLaunchBusy,
        onchange: actions.setAutoLaunch,
      }),
      message(h, t, settings.autoLaunchMessage)),
    h('section', { class: 'card stack' },
      h('div', { class: 'field-row' },
        h('label', { class: 'choice-title', for: 'language' }, t('settings.language')),
        h('select', {
          id: 'language',
          key: 'language',
          class: 'select',
          onchange: (event) => actions.setLanguage(event.target.value),
        }, LANGUAGES.map((language) => h('option', {
          value: language,
          selected: language === t.language,
          lang: language,
        }, LANGUAGE_NAMES[language])))),
      h('button', {
        class: 'link-row',
        key: 'website',
        disabled: !state.website,
        onclick: actions.openWebsite,
      },
      h('span', { class: 'choice-text' },
        h('span', { class: 'choice-title' }, t('settings.website')),
        h('span', { class: 'choice-hint' }, t('settings.website.hint'))),
      chevronIcon(h)),
      h('div', { class: 'field-row' },
        h('span', { class: 'choice-title' }, t('settings.version')),
        h('span', { class: 'muted version' }, settings.version))),
    h('section', { class: 'card account-row' },
      h('div', { class: 'choice-text' },
        h('span', { class: 'choice-hint' }, t('settings.account')),
        h('span', { class: 'choice-title email' }, email || '—')),
      h('button', { class: 'button danger small', key: 'logout', onclick: actions.logout }, t('settings.logout'))));
}
