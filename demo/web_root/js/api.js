// Requests to the device and the session they run in. Every action is a POST to
// /action/device/NAME with a JSON body; the reply is a JSON object whose "Result" says
// whether it worked. The session id lives in sessionStorage, so it ends with the tab.
import { t, has } from './i18n.js';

const SID = 'sessionid', TIMEOUT = 'timeout', USER = 'user';

export class DeviceError extends Error {
  constructor(message, reply) { super(message); this.reply = reply; }
}

export const session = {
  get id() { return sessionStorage.getItem(SID); },
  get user() { return sessionStorage.getItem(USER) || ''; },
  get timeout() { return Number(sessionStorage.getItem(TIMEOUT)) || 1800; },
  start(id, user, timeout) {
    sessionStorage.setItem(SID, id);
    sessionStorage.setItem(USER, user);
    sessionStorage.setItem(TIMEOUT, String(timeout));
  },
  clear() { sessionStorage.clear(); },
};

// Set once the page ends its session itself (logout, reboot): answers still on their way
// that find the session gone are then expected, not an expiry.
let ending = false, leaving = false;

// Back to the login page, which shows why ("expired", "loggedout", "restarted"). The first
// reason given wins.
export function toLogin(why) {
  if (leaving) return;
  leaving = true;
  session.clear();
  location.replace('login.html' + (why ? '?why=' + why : ''));
}

// Every action but the probe refreshes the session on the device.
let lastRefresh = Date.now(), lastUse = Date.now(), pending = 0, keepers = [];

// The device decodes %XX in a query value but not "+", so values are encoded that way only.
export function actionUrl(action, query = {}) {
  const all = { ...query };
  if (session.id) all[SID] = session.id;
  const text = Object.entries(all).map(([k, v]) => k + '=' + encodeURIComponent(v)).join('&');
  return '/action/device/' + action + (text ? '?' + text : '');
}

// Reads a reply text; a refused session ends the page's session.
export function readReply(status, text) {
  if (status !== 200) throw new DeviceError(t('The device answered with HTTP status {0}.', status));
  let reply;
  try { reply = JSON.parse(text); } catch { throw new DeviceError(t('The device gave an answer the pages cannot read.')); }
  if (reply && reply.Result === 'Fail' && reply.ErrorNo === -16) {
    if (!ending) toLogin('expired');
    throw new DeviceError(t('Your session has ended. Please log in again.'), reply);
  }
  return reply;
}

// Runs an action; resolves to the reply object, whatever its "Result".
export async function call(action, body, query) {
  pending++;
  if (action !== 'detection_sessionid') lastRefresh = Date.now();
  try {
    let res;
    try {
      res = await fetch(actionUrl(action, query), {
        method: 'POST', cache: 'no-store', body: body === undefined ? '' : JSON.stringify(body),
      });
    } catch {
      throw new DeviceError(t('The device did not answer. Is it on the network?'));
    }
    return readReply(res.status, await res.text());
  } finally {
    pending--;
  }
}

// The reply's failure in words; "" when it succeeded.
export function failure(reply) {
  if (!reply || reply.Result === 'OK') return '';
  const reason = String(reply.Reason ?? '');
  const known = reason.startsWith('The server does not support this protocol') ?
    'The server does not support this protocol' : reason;
  if (has(known)) return t(known);
  return reason || t('The device answered with HTTP status {0}.', reply.ErrorNo ?? '?');
}

// Runs an action and returns the reply when it succeeded; else throws its failure in words.
export async function need(action, body, query) {
  const reply = await call(action, body, query);
  if (reply.Result !== 'OK') throw new DeviceError(failure(reply), reply);
  return reply;
}

// Keeps the session alive while the page is used and notices when it has ended. A use of the
// page (a key, a click, a request waiting for its answer) refreshes the session at most once
// a third of its time-out; the probe does not refresh it, so an unused page lets it expire.
export function keepSession() {
  const timeout = session.timeout * 1000;
  const touchEvery = Math.min(60000, Math.max(1000, timeout / 3));
  const probeEvery = Math.min(15000, Math.max(1000, timeout / 2));
  for (const kind of ['pointerdown', 'keydown']) addEventListener(kind, () => { lastUse = Date.now(); }, true);
  keepers.push(setInterval(() => {
    if ((lastUse > lastRefresh || pending > 0) && Date.now() - lastRefresh >= touchEvery)
      call('set_login_time').catch(() => {});
  }, 1000));
  keepers.push(setInterval(() => {
    if (pending === 0) call('detection_sessionid').catch(() => {});
  }, probeEvery));
}

// Stops keeping and probing the session, which the page is about to end (a logout, or a
// restart of the device, which ends every session).
export function endingSession() {
  ending = true;
  keepers.forEach(clearInterval);
  keepers = [];
}
