// Small helpers shared by the sections: building elements, messages, confirmations, sizes.
import { t, apply } from './i18n.js';

// An element with attributes (on* keys become listeners) and children (texts or elements).
export function el(tag, attrs = {}, ...children) {
  const e = document.createElement(tag);
  for (const [key, value] of Object.entries(attrs)) {
    if (key.startsWith('on')) e.addEventListener(key.slice(2), value);
    else if (key in e && key !== 'list') e[key] = value;
    else e.setAttribute(key, value);
  }
  e.append(...children.filter((c) => c !== null && c !== undefined));
  return e;
}

// Shows text in the section's message line; kind "error", "ok" or "" (in progress).
export function say(section, text, kind = '') {
  const line = section.querySelector(':scope > .message');
  line.textContent = text;
  line.className = 'message ' + kind;
}

// Runs work with the button disabled and reports a thrown error in the section's message.
export async function busy(section, button, work) {
  if (button) button.disabled = true;
  try {
    return await work();
  } catch (e) {
    say(section, e.message, 'error');
    return undefined;
  } finally {
    if (button) button.disabled = false;
  }
}

// Asks for a confirmation; with fields (elements inside labels), resolves to the form's
// values, else to true; resolves to null when cancelled.
export function confirmWith(text, fields = []) {
  const dialog = document.getElementById('confirm');
  document.getElementById('confirm-text').textContent = text;
  const box = document.getElementById('confirm-fields');
  box.replaceChildren(...fields);
  apply(dialog);
  return new Promise((resolve) => {
    dialog.addEventListener('close', () => {
      if (dialog.returnValue !== 'yes') return resolve(null);
      resolve(fields.length ? Object.fromEntries(new FormData(dialog.querySelector('form'))) : true);
    }, { once: true });
    dialog.returnValue = '';
    dialog.showModal();
  });
}

export function sizeText(bytes) {
  const units = ['B', 'KB', 'MB', 'GB', 'TB'];
  let n = Number(bytes), u = 0;
  while (n >= 1024 && u < units.length - 1) { n /= 1024; u++; }
  return (u === 0 ? String(n) : n.toFixed(n < 10 ? 1 : 0)) + ' ' + units[u];
}

// Fills a <dl> with name and value pairs.
export function facts(dl, pairs) {
  dl.replaceChildren(...pairs.flatMap(([name, value]) => [el('dt', {}, name), el('dd', {}, value)]));
}

// "MaxCardSizeGB" -> "Max card size GB": names of a device's JSON members, for reading.
export function words(name) {
  return String(name).replace(/([a-z0-9])([A-Z])/g, '$1 $2').replace(/_/g, ' ')
    .replace(/^./, (c) => c.toUpperCase());
}

// A JSON value as nested lists a person can read.
export function present(value) {
  if (Array.isArray(value)) {
    if (value.every((v) => v === null || typeof v !== 'object')) return value.join(', ');
    return el('ol', {}, ...value.map((v) => el('li', {}, present(v))));
  }
  if (value && typeof value === 'object') {
    return el('dl', { className: 'facts' },
      ...Object.entries(value).flatMap(([k, v]) => [el('dt', {}, words(k)), el('dd', {}, present(v))]));
  }
  if (typeof value === 'boolean') return t(value ? 'yes' : 'no');
  return String(value);
}
