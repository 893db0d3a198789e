// Small DOM helpers: element building (text only, never HTML from data), icons,
// modal dialogs that give focus back, and toasts.

export function h(tag, attrs = {}, ...children) {
  const el = document.createElement(tag);
  for (const [k, v] of Object.entries(attrs ?? {})) {
    if (v === undefined || v === null || v === false) continue;
    if (k === 'class') el.className = v;
    else if (k === 'text') el.textContent = v;
    else if (k.startsWith('on') && typeof v === 'function') el.addEventListener(k.slice(2), v);
    else if (k in el && typeof v !== 'string') el[k] = v;
    else el.setAttribute(k, v === true ? '' : v);
  }
  append(el, children);
  return el;
}

function append(el, children) {
  for (const c of children) {
    if (c === null || c === undefined || c === false) continue;
    if (Array.isArray(c)) append(el, c);
    else el.append(c instanceof Node ? c : document.createTextNode(String(c)));
  }
}

const SVG_NS = 'http://www.w3.org/2000/svg';
export function icon(name) {
  const svg = document.createElementNS(SVG_NS, 'svg');
  svg.setAttribute('aria-hidden', 'true');
  const use = document.createElementNS(SVG_NS, 'use');
  use.setAttribute('href', `#i-${name}`);
  svg.append(use);
  return svg;
}

let uid = 0;
export const nextId = (prefix) => `${prefix}-${++uid}`;

// Opens a modal dialog and returns focus to the element that had it once it closes.
// The close event comes a moment after close(); a dialog opened again before it came
// settles the earlier opening first.
const openings = new WeakMap();
export function openModal(dialog, onClose) {
  const prev = openings.get(dialog);
  let opener = document.activeElement;
  if (prev) {
    dialog.removeEventListener('close', prev.closed);
    openings.delete(dialog);
    opener = prev.opener;
    if (prev.onClose) prev.onClose();
  }
  const closed = () => {
    // The late close event of an earlier opening reaches this listener too.
    if (dialog.open) return;
    dialog.removeEventListener('close', closed);
    openings.delete(dialog);
    if (onClose) onClose();
    if (opener && opener.isConnected && typeof opener.focus === 'function') opener.focus();
    else if (opener?.dataset?.focus) {
      // The opener's row was rebuilt meanwhile: its successor takes the focus.
      const key = opener.dataset.focus;
      const again = [...document.querySelectorAll('[data-focus]')].find((el) => el.dataset.focus === key);
      if (again) again.focus();
    }
  };
  openings.set(dialog, { closed, onClose, opener });
  dialog.addEventListener('close', closed);
  if (!dialog.open) dialog.showModal();
}

export function wireCloseButtons(dialog) {
  dialog.addEventListener('click', (ev) => {
    if (ev.target.closest('[data-close]')) dialog.close('cancel');
  });
}

// Applies the page's texts to the static markup: data-t (text), data-t-aria
// (aria-label) and data-t-title (title).
export function applyTexts(root, t) {
  for (const el of root.querySelectorAll('[data-t]')) el.textContent = t(el.dataset.t);
  for (const el of root.querySelectorAll('[data-t-aria]')) el.setAttribute('aria-label', t(el.dataset.tAria));
  for (const el of root.querySelectorAll('[data-t-title]')) el.title = t(el.dataset.tTitle);
  for (const el of root.querySelectorAll('[data-t-placeholder]')) el.placeholder = t(el.dataset.tPlaceholder);
}

// Toasts close by themselves (errors stay longer) and never pile up: the oldest goes
// when a fifth comes. A pointer or focus on a toast holds it open.
export const TOAST_MAX = 4;
export class Toaster {
  constructor(container, t) {
    this.container = container;
    this.t = t;
  }

  show(message, { error = false, timeout } = {}) {
    const close = h('button', { type: 'button', class: 'btn ghost icon', 'aria-label': this.t('toast.dismiss') }, icon('x'));
    const toast = h('div', { class: error ? 'toast error' : 'toast', role: error ? 'alert' : 'status' },
      h('span', { class: 'msg', text: message }), close);
    let timer = null;
    const remove = () => {
      clearTimeout(timer);
      toast.remove();
    };
    const ms = timeout ?? (error ? 10000 : 4000);
    const arm = () => {
      clearTimeout(timer);
      if (ms > 0) timer = setTimeout(remove, ms);
    };
    close.addEventListener('click', remove);
    toast.addEventListener('pointerenter', () => clearTimeout(timer));
    toast.addEventListener('pointerleave', arm);
    toast.addEventListener('focusin', () => clearTimeout(timer));
    toast.addEventListener('focusout', arm);
    this.container.append(toast);
    while (this.container.children.length > TOAST_MAX) this.container.firstElementChild.remove();
    arm();
    return toast;
  }

  error(message) {
    return this.show(message, { error: true });
  }

  clear() {
    this.container.replaceChildren();
  }
}
