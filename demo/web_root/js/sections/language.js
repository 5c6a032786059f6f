// Language: the pages' language, a setting of the device. Its "mode" is kept as it is.
import { need } from '../api.js';
import { setLanguage, t } from '../i18n.js';
import { busy, say } from '../ui.js';

let mode = 0;

export function init(section) {
  const choice = section.querySelector('#language-choice');
  section.querySelector('#language-form').addEventListener('submit', (e) => {
    e.preventDefault();
    busy(section, e.submitter, async () => {
      await need('set_Language_Format', { language: choice.value, mode });
      setLanguage(choice.value);
      say(section, t('Saved.'), 'ok');
    });
  });
}

export function show(section) {
  busy(section, null, async () => {
    const reply = await need('get_Language_Format');
    section.querySelector('#language-choice').value = reply.Parameters.language;
    mode = reply.Parameters.mode;
  });
}
