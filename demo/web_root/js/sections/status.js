// Status: the device time, ticking, and what the device can do (its capability file).
import { need } from '../api.js';
import { busy, present } from '../ui.js';
import { readClock, tick } from './clock.js';

export function init(section) {
  tick(section.querySelector('#status-clock'));
}

export function show(section) {
  busy(section, null, async () => {
    await readClock();
    const caps = await need('GetDeviceCapability');
    section.querySelector('#status-caps').replaceChildren(present(caps.Parameters));
  });
}
