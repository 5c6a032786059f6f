// Web port: the port the server listens on. After a change the server moves within a few
// seconds; the page waits until the new port answers and reopens itself there, handing its
// session over in the address's fragment (which is never sent to the server).
import { call, failure, need, session } from '../api.js';
import { t } from '../i18n.js';
import { busy, confirmWith, say } from '../ui.js';

const FOLLOW_FOR_MS = 30000, LOOK_EVERY_MS = 500;

function chosenPort(section) {
  const input = section.querySelector('#port-new');
  const port = Number(input.value);
  if (!Number.isInteger(port) || port < 1 || port > 65535)
    throw new Error(t('Enter a whole number from {0} to {1} for {2}.', 1, 65535, t('New port')));
  return port;
}

function addressOn(port) { return `${location.protocol}//${location.hostname}:${port}`; }

// Whether the server answers on port; a cross-origin request without CORS still tells.
async function answers(port) {
  try {
    await fetch(addressOn(port) + '/login.html', { mode: 'no-cors', cache: 'no-store' });
    return true;
  } catch {
    return false;
  }
}

async function follow(section, port) {
  say(section, t('Moving to port {0}…', port));
  for (const end = Date.now() + FOLLOW_FOR_MS; Date.now() < end;) {
    if (await answers(port)) {
      const handed = new URLSearchParams({ s: session.id, u: session.user, t: session.timeout, v: 'port' });
      location.replace(addressOn(port) + '/console.html#' + handed);
      return;
    }
    await new Promise((r) => setTimeout(r, LOOK_EVERY_MS));
  }
  say(section, t('The server did not come up on port {0}. Try opening it by hand.', port), 'error');
}

export function init(section) {
  section.querySelector('#port-check').addEventListener('click', (e) => busy(section, e.target, async () => {
    const port = chosenPort(section);
    const reply = await call('GetWebServerPortStatus', { Port: port });
    if (reply.Result === 'OK') say(section, t('Port {0} is free.', port), 'ok');
    else if (reply.Reason === 'http port in use') say(section, t('Port {0} is in use on the device.', port), 'error');
    else say(section, failure(reply), 'error');
  }));
  section.querySelector('#port-form').addEventListener('submit', (e) => {
    e.preventDefault();
    busy(section, e.submitter, async () => {
      const port = chosenPort(section);
      if (String(port) === section.querySelector('#port-current').textContent)
        return say(section, t('The server is on port {0} already.', port), 'error');
      if (!await confirmWith(t('Move the web server to port {0}? The pages will follow it.', port))) return;
      await need('SetWebServerParameter', { Port: port });
      await follow(section, port);
    });
  });
}

export function show(section) {
  busy(section, null, async () => {
    const reply = await need('GetWebServerParameter');
    section.querySelector('#port-current').textContent = reply.Parameters.Port;
  });
}
