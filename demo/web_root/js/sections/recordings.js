// Recordings: the card's folders and files, played in the page (the browser fetches byte
// ranges), downloaded, deleted after a confirmation; the card's status and formatting.
import { call, failure, need } from '../api.js';
import { t } from '../i18n.js';
import { busy, confirmWith, el, facts, present, say, sizeText, words } from '../ui.js';

const fileUrl = (...parts) => '/sd/' + parts.map(encodeURIComponent).join('/');

function timeText(time) {
  return String(time).replace(' recording...', ' · ' + t('recording now'));
}

async function remove(section, button, question, body, name) {
  if (!await confirmWith(question)) return;
  await busy(section, button, async () => {
    await need('set_storage_deletefile', body);
    await load(section);
    say(section, t('{0} was deleted.', name), 'ok');
  });
}

function play(section, dir, name) {
  const player = section.querySelector('#player');
  player.hidden = false;
  player.src = fileUrl(dir, name);
  player.play().catch(() => {});  // a format the browser cannot play shows its own error
}

function folderView(section, folder) {
  const files = folder.file_info;
  const total = files.reduce((sum, f) => sum + Number(f.size), 0);
  const rows = files.map((f) => el('tr', { className: 'file' },
    el('td', {}, f.name), el('td', {}, timeText(f.time)), el('td', { className: 'size' }, sizeText(f.size)),
    el('td', { className: 'actions' },
      el('button', { type: 'button', className: 'play', onclick: () => play(section, folder.dir_name, f.name) }, t('Play')),
      el('a', { className: 'button', href: fileUrl(folder.dir_name, f.name), download: f.name }, t('Download')),
      el('button', {
        type: 'button', className: 'delete danger',
        onclick: (e) => remove(section, e.target, t('Delete {0}?', f.name),
          { mode: 1, file: [folder.dir_name + '/' + f.name] }, f.name),
      }, t('Delete')))));
  return el('details', { open: true, className: 'folder', 'data-folder': folder.dir_name },
    el('summary', {}, el('strong', {}, folder.dir_name), ' ', t('{0} files, {1}', files.length, sizeText(total)), ' ',
      el('button', {
        type: 'button', className: 'delete-folder danger',
        onclick: (e) => remove(section, e.target, t('Delete the folder {0} and every recording in it?', folder.dir_name),
          { mode: 0, file: [folder.dir_name] }, folder.dir_name),
      }, t('Delete the folder'))),
    el('table', { className: 'list' }, el('tbody', {}, ...rows)));
}

async function load(section) {
  const reply = await need('get_video_directory');
  const list = section.querySelector('#recordings-list');
  const folders = [...reply.Parameters].sort((a, b) => String(b.dir_name).localeCompare(a.dir_name));
  for (const f of folders) f.file_info.sort((a, b) => String(a.name).localeCompare(b.name));
  list.replaceChildren(...(folders.length ? folders.map((f) => folderView(section, f)) : [el('p', {}, t('No recordings.'))]));
}

export function init(section) {
  section.querySelector('#recordings-refresh').addEventListener('click', (e) => busy(section, e.target, () => load(section)));
  section.querySelector('#storage-status').addEventListener('click', (e) => busy(section, e.target, async () => {
    const reply = await need('GetStorageStatus');
    const shown = Object.entries(reply).filter(([k]) => k !== 'Result' && k !== 'Reason');
    const pairs = shown.flatMap(([k, v]) => (k === 'Parameters' && v && typeof v === 'object' ?
      Object.entries(v).map(([pk, pv]) => [words(pk), present(pv)]) : [[words(k), present(v)]]));
    facts(section.querySelector('#storage-facts'), pairs.length ? pairs : [[t('Status'), t('OK')]]);
  }));
  section.querySelector('#storage-format').addEventListener('click', async (e) => {
    if (!await confirmWith(t('Erase every recording on the card? This cannot be undone.'))) return;
    await busy(section, e.target, async () => {
      const reply = await call('FormatStorage', {});
      if (reply.Result !== 'OK') throw new Error(failure(reply));
      await load(section);
      say(section, t('The card was formatted.'), 'ok');
    });
  });
}

export function show(section) { busy(section, null, () => load(section)); }
