// Login with the panel account's e-mail and password.
import { say } from '../errors.js';

export function loginView(h, t, state, actions) {
  const login = state.login;
  const error = login.error;
  return h('div', { class: 'view login' },
    h('form', {
      class: 'login-form card',
      novalidate: true,
      'aria-labelledby': 'login-title',
      'aria-busy': login.busy ? 'true' : null,
      onsubmit: (event) => {
        event.preventDefault();
        actions.submitLogin();
      },
    },
    h('h1', { id: 'login-title', class: 'login-title' }, t('login.title')),
    h('p', { class: 'muted login-subtitle' }, t('login.subtitle')),
    h('label', { class: 'field-label', for: 'email' }, t('login.email')),
    h('input', {
      id: 'email',
      key: 'email',
      class: 'input',
      type: 'email',
      name: 'email',
      autocomplete: 'username',
      inputmode: 'email',
      spellcheck: 'false',
      required: true,
      value: login.email,
      'aria-invalid': error && error.field === 'email' ? 'true' : null,
      'aria-describedby': error ? 'login-error' : null,
      oninput: (event) => actions.editLogin('email', event.target.value),
    }),
    h('label', { class: 'field-label', for: 'password' }, t('login.password')),
    h('div', { class: 'password' },
      h('input', {
        id: 'password',
        key: 'password',
        class: 'input',
        type: login.showPassword ? 'text' : 'password',
        name: 'password',
        autocomplete: 'current-password',
        required: true,
        value: login.password,
        'aria-invalid': error && error.field === 'password' ? 'true' : null,
        'aria-describedby': error ? 'login-error' : null,
        oninput: (event) => actions.editLogin('password', event.target.value),
      }),
      h('button', {
        type: 'button',
        class: 'reveal',
        key: 'reveal',
        'aria-pressed': login.showPassword ? 'true' : 'false',
        onclick: actions.togglePassword,
      }, t(login.showPassword ? 'login.hidePassword' : 'login.showPassword'))),
    error ? h('p', { id: 'login-error', class: 'alert', role: 'alert' }, say(t, error)) : null,
    h('button', {
      type: 'submit',
      class: 'button primary wide',
      key: 'login-submit',
      disabled: login.busy,
    }, t(login.busy ? 'login.busy' : 'login.submit'))),
    state.website ? h('button', {
      class: 'link-button login-website',
      key: 'login-website',
      onclick: actions.openWebsite,
    }, t('login.website')) : null);
}
