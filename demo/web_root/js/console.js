// The console: one section per subject, shown one at a time. Each section module exports
// init(section), run once, and show(section), run each time the section is opened.
import { call, endingSession, keepSession, session, toLogin } from './api.js';
import { setLanguage } from './i18n.js';
import * as status from './sections/status.js';
import * as time from './sections/time.js';
import * as language from './sections/language.js';
import * as port from './sections/port.js';
import * as accounts from './sections/accounts.js';
import * as recordings from './sections/recordings.js';
import * as watermark from './sections/watermark.js';
import * as firmware from './sections/firmware.js';
import * as network from './sections/network.js';
import * as commands from './sections/commands.js';
import * as reboot from './sections/reboot.js';

const modules = { status, time, language, port, accounts, recordings, watermark, firmware, network, commands, reboot };

// A page that the server moved to a new port hands the session over in the fragment, since
// the stored session belongs to the old address (origin).
function takeHandOver() {
  const handed = new URLSearchParams(location.hash.slice(1));
  if (handed.get('s')) {
    session.start(handed.get('s'), handed.get('u') || '', Number(handed.get('t')) || 1800);
    history.replaceState(null, '', location.pathname);
    return handed.get('v');
  }
  return null;
}

function open(name) {
  if (!modules[name]) name = 'status';
  for (const b of document.querySelectorAll('#nav button')) b.classList.toggle('current', b.dataset.section === name);
  for (const s of document.querySelectorAll('main > section')) s.hidden = s.id !== name;
  modules[name].show?.(document.getElementById(name));
}

async function start() {
  const first = takeHandOver();
  if (!session.id) return toLogin();
  try {
    const reply = await call('get_Language_Format');
    setLanguage(reply.Result === 'OK' ? reply.Parameters.language : 'english');
  } catch {
    setLanguage('english');
  }
  document.getElementById('who').textContent = session.user;
  for (const [name, module] of Object.entries(modules)) module.init?.(document.getElementById(name));
  for (const b of document.querySelectorAll('#nav button')) b.addEventListener('click', () => open(b.dataset.section));
  document.getElementById('logout').addEventListener('click', async () => {
    endingSession();
    await call('logout', { sessionid: session.id }).catch(() => {});
    toLogin('loggedout');
  });
  keepSession();
  open(first || 'status');
}

start();
