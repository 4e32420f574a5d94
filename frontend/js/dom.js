// A small element builder and the re-render that keeps the user's place: the focused control
// (matched by data-key, with its caret) and the scroll position survive a redraw.

export function createBuilder(document) {
  function append(parent, child) {
    if (child === null || child === undefined || child === false) {
      return;
    }
    if (Array.isArray(child)) {
      child.forEach((item) => append(parent, item));
      return;
    }
    parent.appendChild(typeof child === 'object' ? child : document.createTextNode(String(child)));
  }

  // h('button', { class: 'x', key: 'k', onclick: fn, 'aria-label': 'y', disabled: true }, ...children)
  return function h(tag, attributes, ...children) {
    const element = document.createElementNS(
      tag === 'svg' || tag === 'path' || tag === 'circle' ? 'http://www.w3.org/2000/svg' : 'http://www.w3.org/1999/xhtml',
      tag);
    for (const [name, value] of Object.entries(attributes || {})) {
      if (value === null || value === undefined || value === false) {
        continue;
      }
      if (name === 'key') {
        element.setAttribute('data-key', value);
      } else if (name.startsWith('on') && typeof value === 'function') {
        element.addEventListener(name.slice(2), value);
      } else if (name === 'value' || name === 'checked') {
        element[name] = value;
      } else {
        element.setAttribute(name, value === true ? '' : String(value));
      }
    }
    append(element, children);
    return element;
  };
}

function focusState(root) {
  const active = root.ownerDocument.activeElement;
  if (!active || !root.contains(active) || !active.getAttribute('data-key')) {
    return null;
  }
  const state = { key: active.getAttribute('data-key') };
  if (typeof active.selectionStart === 'number') {
    try {
      state.selection = [active.selectionStart, active.selectionEnd];
    } catch (_) {
      // Inputs without a caret (checkboxes) have none to keep.
    }
  }
  return state;
}

function restoreFocus(root, state) {
  if (!state) {
    return;
  }
  const target = Array.from(root.querySelectorAll('[data-key]'))
    .find((element) => element.getAttribute('data-key') === state.key);
  if (!target || typeof target.focus !== 'function') {
    return;
  }
  target.focus({ preventScroll: true });
  if (state.selection && typeof target.setSelectionRange === 'function') {
    try {
      target.setSelectionRange(state.selection[0], state.selection[1]);
    } catch (_) {
      // Not every input type has a caret.
    }
  }
}

// Replaces the content of `root` with `content`, keeping focus and scroll positions of the
// elements marked data-scroll.
export function replaceContent(root, content) {
  const focus = focusState(root);
  const scrolls = new Map();
  root.querySelectorAll('[data-scroll]').forEach((element) => {
    scrolls.set(element.getAttribute('data-scroll'), element.scrollTop);
  });
  root.replaceChildren(content);
  root.querySelectorAll('[data-scroll]').forEach((element) => {
    const top = scrolls.get(element.getAttribute('data-scroll'));
    if (top) {
      element.scrollTop = top;
    }
  });
  restoreFocus(root, focus);
}
