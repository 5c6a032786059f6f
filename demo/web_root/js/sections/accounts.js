// Accounts: the device's web accounts. The list shows names only; the stored digests, which
// the device needs to delete an account, stay in this module and are never shown.
import { call, need } from '../api.js';
import { t } from '../i18n.js';
import { busy, confirmWith, el, say } from '../ui.js';

const digests = new Map();

async function load(section) {
  const reply = await need('get_user_param');
  digests.clear();
  for (const a of reply.Parameters) digests.set(a.user_name, a.password);
  const rows = [...digests.keys()].map((name) => el('tr', {},
    el('td', {}, name),
    el('td', { className: 'actions' },
      el('button', { type: 'button', className: 'change', onclick: (e) => changePassword(section, e.target, name) },
        t('Change password')),
      name === 'admin' ? null :
        el('button', { type: 'button', className: 'delete danger', onclick: (e) => remove(section, e.target, name) },
          t('Delete')))));
  section.querySelector('#accounts-list').replaceChildren(...rows);
}

function passwordField(name, label) {
  return el('label', {}, t(label), el('input', { name, type: 'password', required: true, autocomplete: 'new-password' }));
}

async function changePassword(section, button, name) {
  const values = await confirmWith(t('Change password') + ': ' + name,
    [passwordField('password', 'New password'), passwordField('again', 'Repeat the password')]);
  if (!values) return;
  await busy(section, button, async () => {
    if (values.password !== values.again) throw new Error(t('The two passwords differ.'));
    const reply = await call('set_user_param', { operation: 2, user_name: name, password: md5(values.password) });
    if (reply.Result !== 'OK') throw new Error(t('The password of {0} could not be changed.', name));
    await load(section);
    say(section, t('The password of {0} was changed.', name), 'ok');
  });
}

async function remove(section, button, name) {
  if (!await confirmWith(t('Delete the account {0}?', name))) return;
  await busy(section, button, async () => {
    const reply = await call('set_user_param', { operation: 1, user_name: name, password: digests.get(name) });
    if (reply.Result !== 'OK') throw new Error(t('The account {0} could not be deleted.', name));
    await load(section);
    say(section, t('The account {0} was deleted.', name), 'ok');
  });
}

export function init(section) {
  const form = section.querySelector('#accounts-add');
  form.addEventListener('submit', (e) => {
    e.preventDefault();
    busy(section, e.submitter, async () => {
      const name = form.user.value.trim();
      if (!name || !form.password.value) throw new Error(t('Enter a user name and a password.'));
      if (form.password.value !== form.again.value) throw new Error(t('The two passwords differ.'));
      const refused = new Error(t('The account {0} could not be added: the name is taken or all 16 places are used.', name));
      if (digests.has(name)) throw refused;
      const reply = await call('set_user_param', { operation: 0, user_name: name, password: md5(form.password.value) });
      await load(section);
      // A full table is not reported by the device: the name is simply not there.
      if (reply.Result !== 'OK' || !digests.has(name)) throw refused;
      form.reset();
      say(section, t('The account {0} was added.', name), 'ok');
    });
  });
}

export function show(section) { busy(section, null, () => load(section)); }
