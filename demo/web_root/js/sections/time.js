// Time: the device clock set by fields, or from this computer's clock. The fields are checked
// here against the ranges the device takes: a year of 1971 to 2069 and a date that exists.
import { need } from '../api.js';
import { t } from '../i18n.js';
import { busy, say } from '../ui.js';
import { now, readClock, tick } from './clock.js';

const FIELDS = [
  ['year', 'Year', 1971, 2069], ['month', 'Month', 1, 12], ['day', 'Day', 1, 31],
  ['hour', 'Hour', 0, 23], ['minute', 'Minute', 0, 59], ['second', 'Second', 0, 59],
];

function fill(form, d, utc) {
  const get = (name) => (utc ? d['getUTC' + name]() : d['get' + name]());
  form.year.value = get('FullYear');
  form.month.value = get('Month') + 1;
  form.day.value = get('Date');
  form.hour.value = get('Hours');
  form.minute.value = get('Minutes');
  form.second.value = get('Seconds');
}

// The request body (tm_* fields: month from 0, year from 1900, weekday from Sunday = 0), or
// throws the first field's fault in words.
export function clockBody(v) {
  for (const [name, label, min, max] of FIELDS) {
    const n = Number(v[name]);
    if (v[name] === '' || !Number.isInteger(n) || n < min || n > max)
      throw new Error(t('Enter a whole number from {0} to {1} for {2}.', min, max, t(label)));
  }
  const date = new Date(Date.UTC(v.year, v.month - 1, v.day));
  if (date.getUTCMonth() !== v.month - 1) throw new Error(t('That date does not exist.'));
  return {
    tm_sec: Number(v.second), tm_min: Number(v.minute), tm_hour: Number(v.hour), tm_mday: Number(v.day),
    tm_mon: v.month - 1, tm_year: v.year - 1900, tm_wday: date.getUTCDay(),
  };
}

async function setClock(section, button, values) {
  await busy(section, button, async () => {
    await need('set_device_localtime', clockBody(values));
    await readClock();
    say(section, t('The clock is set.'), 'ok');
  });
}

export function init(section) {
  const form = section.querySelector('#time-form');
  tick(section.querySelector('#time-now'));
  const values = () => Object.fromEntries(new FormData(form));
  form.addEventListener('submit', (e) => { e.preventDefault(); setClock(section, e.submitter, values()); });
  section.querySelector('#time-browser').addEventListener('click', (e) => {
    fill(form, new Date(), false);
    setClock(section, e.target, values());
  });
}

export function show(section) {
  busy(section, null, async () => {
    await readClock();
    fill(section.querySelector('#time-form'), now(), true);
  });
}
