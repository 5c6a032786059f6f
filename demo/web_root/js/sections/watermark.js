// Watermark: a picture chosen with the file picker, previewed and checked here (type, name,
// size, content and pixels, the limits the device applies) before it is sent.
import { actionUrl, failure, readReply } from '../api.js';
import { t } from '../i18n.js';
import { busy, facts, say, sizeText } from '../ui.js';

const TYPES = { jpg: 'image/jpeg', jpeg: 'image/jpeg', png: 'image/png', bmp: 'image/bmp' };
const SIGNATURES = {
  'image/jpeg': [0xff, 0xd8, 0xff],
  'image/png': [0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a],
  'image/bmp': [0x42, 0x4d],
};
const MIN_BYTES = 1024, MAX_BYTES = 2073600, MAX_WIDTH = 1920, MAX_HEIGHT = 1080;

let chosen = null;

// The picture's fault in words, or "" when the device will take it.
async function fault(file, pixels) {
  const type = Object.keys(SIGNATURES).includes(file.type) ? file.type : '';
  if (!type) return t('Choose a JPEG, PNG or BMP picture.');
  if (TYPES[file.name.split('.').pop().toLowerCase()] !== type)
    return t('The name must end in .jpg, .jpeg, .png or .bmp to match the picture.');
  if (file.size < MIN_BYTES || file.size > MAX_BYTES) return t('The file must be 1 KB to 2 MB (1024 to 2073600 bytes).');
  const head = new Uint8Array(await file.slice(0, 8).arrayBuffer());
  if (!pixels || SIGNATURES[type].some((b, i) => head[i] !== b)) return t('The file is not a picture of its type.');
  if (pixels.width < 1 || pixels.height < 1 || pixels.width > MAX_WIDTH || pixels.height > MAX_HEIGHT)
    return t('The picture is {0} × {1} pixels; at most 1920 × 1080 are allowed.', pixels.width, pixels.height);
  return '';
}

async function measure(file) {
  try {
    const bitmap = await createImageBitmap(file);
    const size = { width: bitmap.width, height: bitmap.height };
    bitmap.close();
    return size;
  } catch {
    return null;
  }
}

async function pick(section, file) {
  const button = section.querySelector('#watermark-upload');
  const preview = section.querySelector('#watermark-preview');
  button.disabled = true;
  chosen = null;
  if (preview.src) URL.revokeObjectURL(preview.src);
  preview.hidden = !file;
  if (!file) return;
  preview.src = URL.createObjectURL(file);
  const pixels = await measure(file);
  facts(section.querySelector('#watermark-facts'), [
    [t('Name'), file.name], [t('Type'), file.type || '?'], [t('Size'), sizeText(file.size)],
    [t('Pixels'), pixels ? `${pixels.width} × ${pixels.height}` : '?'],
  ]);
  const why = await fault(file, pixels);
  say(section, why || t('The picture can be sent.'), why ? 'error' : '');
  chosen = why ? null : file;
  button.disabled = !chosen;
}

export function init(section) {
  const input = section.querySelector('#watermark-file');
  input.addEventListener('change', () => pick(section, input.files[0]));
  section.querySelector('#watermark-upload').addEventListener('click', (e) => busy(section, e.target, async () => {
    const form = new FormData();
    form.append('file', chosen, chosen.name);
    let res;
    try {
      res = await fetch(actionUrl('upload_Image', { fileName: chosen.name }), { method: 'POST', body: form, cache: 'no-store' });
    } catch {
      throw new Error(t('The device did not answer. Is it on the network?'));
    }
    const reply = readReply(res.status, await res.text());
    if (reply.Result !== 'OK') throw new Error(failure(reply));
    say(section, t('The watermark was replaced.'), 'ok');
  }));
}
