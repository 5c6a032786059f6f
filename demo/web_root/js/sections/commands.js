// Other commands: the routed commands these pages know, each with a form made from what its
// reading command answers; and an advanced panel for any action with a JSON body.
import { actionUrl, call, failure, readReply } from '../api.js';
import { t } from '../i18n.js';
import { busy, confirmWith, el, present, say } from '../ui.js';
import { fillFields, readFields } from './fields.js';

// name, the command whose answer fills the form, whether it changes the device.
const KNOWN = [
  ['GetVideoEncodeParameters'],
  ['SetVideoEncodeParameters', 'GetVideoEncodeParameters', true],
  ['GetStorageStatus'],
  ['FormatStorage', null, true],
  ['GetNetworkWIFIParameters'],
  ['SetNetworkWIFIParameters', 'GetNetworkWIFIParameters', true],
  ['GetScanWIFIHotspot'],
  ['GetDeviceCapability'],
];

async function prepare(section) {
  const [, from] = KNOWN.find(([name]) => name === section.querySelector('#command-name').value);
  const box = section.querySelector('#command-fields');
  box.replaceChildren();
  if (!from) return;
  const reply = await call(from, {});
  if (reply.Result === 'OK') fillFields(box, reply.Parameters);
}

export function init(section) {
  const select = section.querySelector('#command-name');
  select.replaceChildren(...KNOWN.map(([name]) => el('option', { value: name }, name)));
  select.addEventListener('change', () => busy(section, null, () => prepare(section)));
  section.querySelector('#command-form').addEventListener('submit', (e) => {
    e.preventDefault();
    busy(section, e.submitter, async () => {
      const [name, , changes] = KNOWN.find(([n]) => n === select.value);
      if (changes && !await confirmWith(t('Send {0}?', name))) return;
      const reply = await call(name, readFields(section.querySelector('#command-fields')));
      const result = section.querySelector('#command-result');
      if (reply.Result !== 'OK') {
        result.replaceChildren();
        return say(section, failure(reply), 'error');
      }
      const { Result, Reason, ...rest } = reply;
      result.replaceChildren(el('p', {}, t('The device answered:')), present(Object.keys(rest).length ? rest : { Result }));
      say(section, t('Done.'), 'ok');
    });
  });
  section.querySelector('#raw-form').addEventListener('submit', (e) => {
    e.preventDefault();
    busy(section, e.submitter, async () => {
      const text = section.querySelector('#raw-body').value.trim();
      if (text) {
        try { JSON.parse(text); } catch { throw new Error(t('The body is not JSON.')); }
      }
      const res = await fetch(actionUrl(section.querySelector('#raw-action').value.trim()),
        { method: 'POST', body: text, cache: 'no-store' });
      const reply = await res.text();
      section.querySelector('#raw-reply').textContent = reply;
      readReply(res.status, reply);
      say(section, '');
    });
  });
}

export function show(section) { busy(section, null, () => prepare(section)); }
