// The device's clock as the pages show it: read once, then ticking in the browser. The
// device's local time is kept as a UTC date so that the browser's own zone plays no part.
import { need } from '../api.js';

let offset = null;  // device time minus browser time, in ms

function pad(n, width = 2) { return String(n).padStart(width, '0'); }

// "2024/05/01_08:15:00", the device's form, to milliseconds.
export function parseDeviceTime(text) {
  const m = /^(\d{4})\/(\d{2})\/(\d{2})_(\d{2}):(\d{2}):(\d{2})$/.exec(text || '');
  return m ? Date.UTC(m[1], m[2] - 1, m[3], m[4], m[5], m[6]) : NaN;
}

export async function readClock() {
  const reply = await need('get_device_localtime');
  const at = parseDeviceTime(reply.Parameters.local_time);
  offset = Number.isNaN(at) ? null : at - Date.now();
  return reply.Parameters.local_time;
}

export function now() { return offset === null ? null : new Date(Date.now() + offset); }

export function clockText() {
  const d = now();
  if (!d) return '…';
  return `${d.getUTCFullYear()}-${pad(d.getUTCMonth() + 1)}-${pad(d.getUTCDate())} ` +
    `${pad(d.getUTCHours())}:${pad(d.getUTCMinutes())}:${pad(d.getUTCSeconds())}`;
}

// Keeps element showing the device time, once a second.
export function tick(element) {
  const update = () => { element.textContent = clockText(); };
  update();
  setInterval(update, 1000);
}
