// Reboot: after a confirmation the device flushes its data and restarts, which takes it
// seconds before it answers and longer before it is back. The page shows that it is
// restarting and returns to the login page once the device answers again: after it was
// seen gone, or when it answered throughout a few seconds (it never went away).
import { call, endingSession, toLogin } from '../api.js';
import { t } from '../i18n.js';
import { confirmWith } from '../ui.js';

const LOOK_EVERY_MS = 1000, STILL_UP_LOOKS = 3;

async function answers() {
  try {
    const res = await fetch('login.html', { method: 'HEAD', cache: 'no-store' });
    return res.ok;
  } catch {
    return false;
  }
}

async function waitForDevice() {
  let wasGone = false, upInARow = 0;
  for (;;) {
    if (await answers()) {
      if (wasGone || ++upInARow >= STILL_UP_LOOKS) return toLogin('restarted');
    } else {
      wasGone = true;
      upInARow = 0;
    }
    await new Promise((r) => setTimeout(r, LOOK_EVERY_MS));
  }
}

export function init(section) {
  const state = section.querySelector('#reboot-state');
  section.querySelector('#reboot-start').addEventListener('click', async (e) => {
    if (!await confirmWith(t('Restart the device now?'))) return;
    e.target.disabled = true;
    endingSession();
    const started = Date.now();
    state.hidden = false;
    const show = () => { state.textContent = t('Restarting: the device writes its data and restarts. This page returns to the login page when it answers again ({0} s).', Math.round((Date.now() - started) / 1000)); };
    show();
    setInterval(show, 1000);
    await call('set_device_reboot').catch(() => {});  // the answer may be lost with the restart
    await waitForDevice();
  });
}
