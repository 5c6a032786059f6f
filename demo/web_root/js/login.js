// The login page. The password travels as its MD5 digest, the form the device stores and
// compares; md5() comes from the blueimp library loaded before this module.
import { call, failure, session } from './api.js';
import { setLanguage, t } from './i18n.js';

const notices = {
  expired: 'Your session has ended. Please log in again.',
  loggedout: 'You have logged out.',
  restarted: 'The device has restarted. Please log in again.',
};

const form = document.getElementById('login-form');
const message = document.getElementById('message');

async function showLanguage() {
  try {
    const reply = await call('get_Language_Format');
    setLanguage(reply.Result === 'OK' ? reply.Parameters.language : '');
  } catch {
    setLanguage(navigator.language.startsWith('zh') ? 'chinese' : 'english');
  }
  const why = new URLSearchParams(location.search).get('why');
  const notice = document.getElementById('notice');
  notice.hidden = !notices[why];
  if (notices[why]) notice.textContent = t(notices[why]);
}

form.addEventListener('submit', async (event) => {
  event.preventDefault();
  const button = document.getElementById('login-button');
  const user = form.username.value.trim();
  const timeout = Number(form.timeout.value);
  button.disabled = true;
  message.className = 'message';
  message.textContent = t('Logging in…');
  try {
    session.clear();
    const reply = await call('login', { username: user, password: md5(form.password.value), timeout });
    if (reply.Result === 'OK' && reply.sessionid) {
      session.start(reply.sessionid, user, timeout);
      location.replace('console.html');
      return;
    }
    message.textContent = failure(reply);
  } catch (e) {
    message.textContent = e.message;
  } finally {
    button.disabled = false;
  }
  message.className = 'message error';
  form.password.select();
});

for (const b of document.querySelectorAll('[data-language]')) {
  b.addEventListener('click', async () => {
    // The choice is the device's setting, which needs no session; its "mode" is kept.
    const current = await call('get_Language_Format').catch(() => null);
    const mode = current?.Result === 'OK' ? current.Parameters.mode : 0;
    const reply = await call('set_Language_Format', { language: b.dataset.language, mode }).catch(() => null);
    if (reply?.Result === 'OK') setLanguage(b.dataset.language);
  });
}

showLanguage();
