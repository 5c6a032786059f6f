// Forms made from a device application's JSON object: one field per member, a number field
// for a number, a text field otherwise; read back with the members' types kept.
import { el, present, words } from '../ui.js';

export function fillFields(box, object) {
  const members = Object.entries(object || {});
  box.replaceChildren(...members.map(([key, value]) => {
    if (value !== null && typeof value === 'object')  // nested values are shown, not edited
      return el('div', { className: 'nested', 'data-key': key, 'data-json': JSON.stringify(value) }, words(key), present(value));
    return el('label', {}, el('span', {}, words(key)),
      el('input', { name: key, type: typeof value === 'number' ? 'number' : 'text', step: 'any', value: String(value) }));
  }));
}

export function readFields(box) {
  const out = {};
  for (const e of box.children) {
    if (e.dataset.json) { out[e.dataset.key] = JSON.parse(e.dataset.json); continue; }
    const input = e.querySelector('input');
    out[input.name] = input.type === 'number' ? Number(input.value) : input.value;
  }
  return out;
}
