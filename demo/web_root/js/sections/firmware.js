// Firmware: the image is sent with its upload progress; while the device installs it (the
// request stays open until the upgrade application reports the end), the installation's
// progress is asked for twice a second; then the result shows.
import { actionUrl, call, failure, readReply } from '../api.js';
import { t } from '../i18n.js';
import { confirmWith, facts, say, sizeText } from '../ui.js';

const POLL_EVERY_MS = 500;

function setBar(section, id, percent, text) {
  section.querySelector('#' + id).value = percent;
  section.querySelector('#' + id + '-text').textContent = text ?? `${Math.round(percent)} %`;
}

// Sends the image; resolves to the device's final reply text and status.
function send(section, file, onSent) {
  return new Promise((resolve, reject) => {
    const xhr = new XMLHttpRequest();
    xhr.open('POST', actionUrl('StartUpgrade'));
    xhr.setRequestHeader('Content-Type', 'application/octet-stream');
    xhr.upload.addEventListener('progress', (e) => {
      if (e.lengthComputable) setBar(section, 'firmware-upload', (100 * e.loaded) / e.total);
    });
    xhr.upload.addEventListener('load', () => { setBar(section, 'firmware-upload', 100); onSent(); });
    xhr.addEventListener('load', () => resolve({ status: xhr.status, text: xhr.responseText }));
    xhr.addEventListener('error', () => reject(new Error(t('The device did not answer. Is it on the network?'))));
    xhr.send(file);
  });
}

async function upgrade(section, file) {
  const start = section.querySelector('#firmware-start');
  start.disabled = true;
  setBar(section, 'firmware-upload', 0);
  setBar(section, 'firmware-install', 0, '');
  say(section, t('Sending the image'));
  let poller = null;
  const poll = async () => {
    const reply = await call('get_upgrade_progress').catch(() => null);
    const p = reply?.Result === 'OK' ? reply.Parameters : null;
    if (p?.UpgradeRunning && poller) setBar(section, 'firmware-install', Math.max(0, Math.min(100, p.UpgradeProgressValue)));
  };
  try {
    const answer = await send(section, file, () => {
      say(section, t('Waiting for the upgrade application…'));
      poller = setInterval(poll, POLL_EVERY_MS);
    });
    clearInterval(poller);
    poller = null;
    const reply = readReply(answer.status, answer.text);
    if (reply.Result !== 'OK') throw new Error(t('The upgrade failed: {0}', failure(reply)));
    const value = reply.Parameters?.UpgradeProgressValue;
    if (typeof value === 'number') setBar(section, 'firmware-install', Math.min(100, value));
    say(section, t('The upgrade finished.'), 'ok');
  } catch (e) {
    say(section, e.message, 'error');
  } finally {
    clearInterval(poller);
    poller = null;
    start.disabled = false;
  }
}

export function init(section) {
  const input = section.querySelector('#firmware-file');
  const start = section.querySelector('#firmware-start');
  input.addEventListener('change', () => {
    const file = input.files[0];
    facts(section.querySelector('#firmware-facts'), file ? [[t('Name'), file.name], [t('Size'), sizeText(file.size)]] : []);
    say(section, file && file.size === 0 ? t('The image is empty.') : '', file && file.size === 0 ? 'error' : '');
    start.disabled = !file || file.size === 0;
  });
  start.addEventListener('click', async () => {
    const file = input.files[0];
    if (await confirmWith(t('Upgrade the firmware with {0}? The device may restart afterwards.', file.name))) upgrade(section, file);
  });
}
