// Network: the WIFI settings of the network application, and a scan for networks, which may
// take the application up to 3 minutes; the page shows that it is busy meanwhile.
import { need } from '../api.js';
import { t } from '../i18n.js';
import { busy, el, present, say, words } from '../ui.js';
import { fillFields, readFields } from './fields.js';

export function init(section) {
  const form = section.querySelector('#wifi-form');
  section.querySelector('#wifi-save').addEventListener('click', (e) => busy(section, e.target, async () => {
    await need('SetNetworkWIFIParameters', readFields(form));
    say(section, t('The WIFI settings were saved.'), 'ok');
  }));
  section.querySelector('#wifi-scan').addEventListener('click', (e) => {
    const shown = section.querySelector('#wifi-busy');
    shown.hidden = false;
    say(section, '');
    busy(section, e.target, async () => {
      const reply = await need('GetScanWIFIHotspot', {});
      const list = reply.Parameters?.HotspotList ?? [];
      const keys = [...new Set(list.flatMap((h) => Object.keys(h)))];
      const head = el('tr', {}, ...keys.map((k) => el('th', {}, words(k))), el('th'));
      const rows = list.map((h) => el('tr', { className: 'hotspot' }, ...keys.map((k) => el('td', {}, present(h[k] ?? ''))),
        el('td', {}, 'SSID' in h && form.elements.SSID ? el('button', {
          type: 'button', onclick: () => { form.elements.SSID.value = h.SSID; },
        }, t('Use')) : null)));
      section.querySelector('#wifi-hotspots').replaceChildren(head, ...rows);
      say(section, t('{0} networks found.', list.length), 'ok');
    }).finally(() => { shown.hidden = true; });
  });
}

export function show(section) {
  busy(section, null, async () => {
    const reply = await need('GetNetworkWIFIParameters', {});
    fillFields(section.querySelector('#wifi-form'), reply.Parameters);
  });
}
