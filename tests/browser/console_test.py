#!/usr/bin/python3
"""The console pages in headless Chromium against the real server and the device simulator.

Run inside tests/isolate.sh (ctest does): console_test.py BUILD_DIR. The device tree holds
the console as a device would, only its gzip copies. Each flow waits on what the page shows,
never on a fixed time. A failing flow leaves a screenshot in BUILD_DIR/browser-failures.
When WEB_REPLY_LOG names a file, every action reply the pages received is appended to it,
one JSON object a line, for the check against docs/api.yaml.
"""
import functools
import json
import os
import re
import shutil
import socket
import struct
import subprocess
import sys
import time
import unittest
import zlib

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support import expected_conditions as EC
from selenium.webdriver.support.ui import Select, WebDriverWait

BUILD = os.path.abspath(sys.argv.pop(1)) if len(sys.argv) > 1 else ''
SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
ROOT = '/mnt/app/web_root'
PARAMS = '/mnt/usr/config/app_parameters'
ADMIN_PASSWORD = 'tavel'
ADMIN_DIGEST = '45b5d899e8cbbf16302d286d2c2f8e9d'
WAIT_S = 15            # for anything the page does by itself
REBOOT_WAIT_S = 40     # the device's restart pauses 11 s before it answers

# The upgrade application reports 0 to 100 in steps of 10, 0.3 s apart: several polls of
# the page fall between two steps. The scan is slow enough for its busy state to be seen.
SCENARIO = {
    'StartUpgrade': {'delay_ms': 300, 'replies': [
        {'Response': {'Result': 'OK', 'Parameters': {'UpgradeProgressValue': v}}} for v in range(0, 101, 10)]},
    'GetScanWIFIHotspot': {'delay_ms': 1500},
}

# Put before the pages' own scripts: records each action reply as the page reads it.
RECORDER = r'''
(() => {
  const log = (url, status, body) => {
    const u = new URL(url, location.href);
    if (u.pathname.startsWith('/action/'))
      console.debug('ACTION-REPLY ' + JSON.stringify({url: u.pathname + u.search, status, body}));
  };
  const text = Response.prototype.text;
  Response.prototype.text = function () {
    return text.call(this).then((body) => { log(this.url, this.status, body); return body; });
  };
  const open = XMLHttpRequest.prototype.open;
  XMLHttpRequest.prototype.open = function (method, url, ...rest) {
    this.addEventListener('load', () => log(url, this.status, this.responseText));
    return open.call(this, method, url, ...rest);
  };
})();
'''


def free_port():
    with socket.socket() as s:
        s.bind(('127.0.0.1', 0))
        return s.getsockname()[1]


def wait_for_port(port, timeout=10):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        with socket.socket() as s:
            if s.connect_ex(('127.0.0.1', port)) == 0:
                return True
        time.sleep(0.05)
    return False


def png(width, height):
    """A real PNG the browser can decode, stored uncompressed so that it passes 1 KB."""
    raw = b''.join(b'\0' + b''.join(bytes(((x * 7) % 256, (y * 5) % 256, 90)) for x in range(width))
                   for y in range(height))

    def chunk(kind, data):
        return struct.pack('>I', len(data)) + kind + data + struct.pack('>I', zlib.crc32(kind + data))
    return (b'\x89PNG\r\n\x1a\n' + chunk(b'IHDR', struct.pack('>IIBBBBB', width, height, 8, 2, 0, 0, 0)) +
            chunk(b'IDAT', zlib.compress(raw, 0)) + chunk(b'IEND', b''))


def lay_out_device(port):
    """The demo's device tree with the console installed as a device keeps it: gzip copies only."""
    for top in ('/mnt', '/tmp'):
        for name in os.listdir(top):
            path = os.path.join(top, name)
            # The checkout and the build may be bind-mounted under /tmp or /mnt.
            if name == 'standins.log' or any((d + '/').startswith(path + '/') for d in (SOURCE, BUILD)):
                continue
            if os.path.isdir(path) and not os.path.islink(path):
                shutil.rmtree(path)
            else:
                os.unlink(path)
    shutil.copytree(os.path.join(SOURCE, 'demo/web_root'), ROOT,
                    ignore=shutil.ignore_patterns('*.html', '*.css', '*.js'))
    console = os.path.join(BUILD, 'console')
    for folder, _, files in os.walk(console):
        for name in files:
            if name.endswith('.gz'):
                target = os.path.join(ROOT, os.path.relpath(folder, console))
                os.makedirs(target, exist_ok=True)
                shutil.copy(os.path.join(folder, name), target)
    shutil.copytree(os.path.join(SOURCE, 'demo/usr/config/app_parameters'), PARAMS)
    with open(os.path.join(PARAMS, 'WebServerParameter.json'), 'w') as f:
        f.write('{\n\t"Port":\t%d\n}' % port)


FAILURES = os.path.join(BUILD, 'browser-failures')


def on_failure_screenshot(test):
    @functools.wraps(test)
    def run(self):
        try:
            test(self)
        except BaseException:
            folder = FAILURES
            os.makedirs(folder, exist_ok=True)
            self.driver.save_screenshot(os.path.join(folder, test.__name__ + '.png'))
            with open(os.path.join(folder, test.__name__ + '.html'), 'w') as f:
                f.write(self.driver.page_source)
            raise
    return run


class Console(unittest.TestCase):
    port = 0

    @classmethod
    def setUpClass(cls):
        shutil.rmtree(FAILURES, ignore_errors=True)  # only this run's failures are kept
        cls.port = free_port()
        lay_out_device(cls.port)
        with open('/tmp/scenario.json', 'w') as f:
            json.dump(SCENARIO, f)
        cls.logs = []
        cls.sim = cls.start('devicesim', [f'{ROOT}/config/command_para', '/tmp/scenario.json'])
        deadline = time.monotonic() + 10
        while 'devicesim: ready' not in open('/tmp/devicesim.log').read():
            assert time.monotonic() < deadline and cls.sim.poll() is None, open('/tmp/devicesim.log').read()
            time.sleep(0.05)
        cls.server = cls.start('webserver', [str(cls.port), 'lo'])
        assert wait_for_port(cls.port), open('/tmp/webserver.log').read()

        options = webdriver.ChromeOptions()
        options.binary_location = '/usr/bin/chromium'
        for flag in ('--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
                     '--disable-background-networking', '--disable-component-update', '--disable-sync',
                     '--disable-dev-shm-usage', '--user-data-dir=/tmp/chromium-profile', '--window-size=1280,1000'):
            options.add_argument(flag)
        options.set_capability('goog:loggingPrefs', {'browser': 'ALL'})
        os.environ['HOME'] = '/tmp'
        cls.driver = webdriver.Chrome(service=Service('/usr/bin/chromedriver'), options=options)
        cls.driver.execute_cdp_cmd('Page.addScriptToEvaluateOnNewDocument', {'source': RECORDER})

    @classmethod
    def tearDownClass(cls):
        cls.keep_replies()
        cls.driver.quit()
        for p in (cls.server, cls.sim):
            p.terminate()
            p.wait(10)
        for log in cls.logs:
            log.close()

    @classmethod
    def start(cls, name, args):
        log = open(f'/tmp/{name}.log', 'w')
        cls.logs.append(log)
        return subprocess.Popen([os.path.join(BUILD, 'bin', name)] + args, stdout=log, stderr=subprocess.STDOUT)

    @classmethod
    def keep_replies(cls):
        """Appends the replies the pages read to the reply log, when one is named."""
        entries = cls.driver.get_log('browser')
        path = os.environ.get('WEB_REPLY_LOG')
        if not path:
            return
        with open(path, 'a') as out:
            for e in entries:
                message = e.get('message', '')
                at = message.find('"ACTION-REPLY ')
                if at >= 0:
                    record = json.loads(message[at:])[len('ACTION-REPLY '):]
                    out.write(json.dumps(json.loads(record)) + '\n')

    def tearDown(self):
        self.keep_replies()

    # ---- helpers

    def url(self, path):
        return f'http://127.0.0.1:{self.port}{path}'

    def wait(self, condition, timeout=WAIT_S):
        return WebDriverWait(self.driver, timeout, poll_frequency=0.05).until(condition)

    def find(self, css):
        return self.wait(EC.visibility_of_element_located((By.CSS_SELECTOR, css)))

    def text_in(self, css, text, timeout=WAIT_S):
        self.wait(EC.text_to_be_present_in_element((By.CSS_SELECTOR, css), text), timeout)

    def click(self, css):
        self.wait(EC.element_to_be_clickable((By.CSS_SELECTOR, css))).click()

    def confirm(self):
        self.click('#confirm-yes')
        self.wait(lambda d: not d.find_element(By.ID, 'confirm').get_attribute('open'))

    def type_into(self, element, text):
        element.clear()
        element.send_keys(text)

    def log_in(self, password=ADMIN_PASSWORD, timeout=None):
        self.driver.get(self.url('/'))
        form = self.find('#login-form')
        self.type_into(form.find_element(By.ID, 'username'), 'admin')
        self.type_into(form.find_element(By.ID, 'password'), password)
        if timeout is not None:
            self.driver.find_element(By.CSS_SELECTOR, 'details summary').click()
            self.type_into(self.find('#timeout'), str(timeout))
        self.click('#login-button')

    def open_section(self, name):
        if not self.driver.current_url.split('#')[0].endswith('/console.html'):
            self.log_in()
            self.wait(EC.url_contains('/console.html'))
        self.click(f'#nav button[data-section="{name}"]')
        return self.find(f'section#{name}')

    def message(self, section):
        return f'section#{section} > .message'

    # ---- flows, in order: the later ones move the server and end sessions

    @on_failure_screenshot
    def test_01_english_then_a_wrong_and_a_right_password(self):
        self.driver.get(self.url('/'))
        self.click('button[data-language="english"]')
        self.text_in('#login-button', 'Log in')
        self.log_in('wrong password')
        self.text_in('#message', 'Wrong user name or password.')
        self.assertTrue(self.driver.current_url.endswith('/'))
        self.log_in()
        self.wait(EC.url_contains('/console.html'))
        self.text_in('#who', 'admin')

    @on_failure_screenshot
    def test_02_status_shows_a_ticking_clock_and_the_capabilities(self):
        self.open_section('status')
        self.wait(lambda d: re.fullmatch(r'\d{4}-\d\d-\d\d \d\d:\d\d:\d\d', d.find_element(By.ID, 'status-clock').text))
        first = self.driver.find_element(By.ID, 'status-clock').text
        self.wait(lambda d: d.find_element(By.ID, 'status-clock').text != first)
        self.text_in('#status-caps', 'Device Type')
        self.text_in('#status-caps', 'h264, h265')

    @on_failure_screenshot
    def test_03_time_is_checked_in_the_page_and_set_from_the_computer(self):
        section = self.open_section('time')
        self.wait(lambda d: section.find_element(By.NAME, 'year').get_attribute('value') != '')
        fields = {n: section.find_element(By.NAME, n) for n in ('year', 'month', 'day')}
        self.type_into(fields['month'], '13')
        self.click('#time-set')
        self.text_in(self.message('time'), 'Enter a whole number from 1 to 12 for Month.')
        self.type_into(fields['month'], '2')
        self.type_into(fields['day'], '30')
        self.click('#time-set')
        self.text_in(self.message('time'), 'That date does not exist.')
        self.type_into(fields['day'], '28')
        self.type_into(fields['year'], '2070')
        self.click('#time-set')
        self.text_in(self.message('time'), 'from 1971 to 2069 for Year')
        # The computer's clock is the device's here: the device takes it without a change.
        self.click('#time-browser')
        self.text_in(self.message('time'), 'The clock is set.')

    @on_failure_screenshot
    def test_04_language_switches_the_pages(self):
        self.open_section('language')
        Select(self.find('#language-choice')).select_by_value('chinese')
        self.click('#language-form button[type=submit]')
        self.text_in('#nav button[data-section="status"]', '状态')
        Select(self.find('#language-choice')).select_by_value('english')
        self.click('#language-form button[type=submit]')
        self.text_in('#nav button[data-section="status"]', 'Status')

    @on_failure_screenshot
    def test_05_accounts_added_changed_and_deleted_without_showing_digests(self):
        section = self.open_section('accounts')
        self.text_in('#accounts-list', 'admin')
        self.assertEqual([], section.find_elements(By.CSS_SELECTOR, '#accounts-list button.delete'))
        form = section.find_element(By.ID, 'accounts-add')
        self.type_into(form.find_element(By.NAME, 'user'), 'guest')
        self.type_into(form.find_element(By.NAME, 'password'), 'first')
        self.type_into(form.find_element(By.NAME, 'again'), 'other')
        form.find_element(By.CSS_SELECTOR, 'button[type=submit]').click()
        self.text_in(self.message('accounts'), 'The two passwords differ.')
        self.type_into(form.find_element(By.NAME, 'again'), 'first')
        form.find_element(By.CSS_SELECTOR, 'button[type=submit]').click()
        self.text_in(self.message('accounts'), 'The account guest was added.')
        self.assertNotIn(ADMIN_DIGEST, self.driver.page_source)

        self.click('#accounts-list tr:nth-child(2) button.change')
        dialog = self.find('#confirm')
        self.type_into(dialog.find_element(By.NAME, 'password'), 'second')
        self.type_into(dialog.find_element(By.NAME, 'again'), 'second')
        self.confirm()
        self.text_in(self.message('accounts'), 'The password of guest was changed.')

        self.click('#accounts-list tr:nth-child(2) button.delete')
        self.text_in('#confirm-text', 'Delete the account guest?')
        self.confirm()
        self.text_in(self.message('accounts'), 'The account guest was deleted.')
        self.assertNotIn('guest', self.driver.find_element(By.ID, 'accounts-list').text)

    @on_failure_screenshot
    def test_06_recordings_listed_played_deleted_and_the_card_formatted(self):
        self.open_section('recordings')
        folder = self.find('details[data-folder="20240501"]')
        self.assertIn('3 files', folder.text)
        self.assertIn('2.0 KB', folder.text)
        folder.find_element(By.CSS_SELECTOR, 'button.play').click()
        player = self.find('#player')
        self.assertTrue(player.get_attribute('src').endswith('/sd/20240501/080000.mp4'))
        link = folder.find_element(By.CSS_SELECTOR, 'a.button')
        self.assertTrue(link.get_attribute('href').endswith('/sd/20240501/080000.mp4'))
        self.assertEqual('080000.mp4', link.get_attribute('download'))

        folder.find_element(By.CSS_SELECTOR, 'tr.file:nth-child(2) button.delete').click()
        self.text_in('#confirm-text', 'Delete 081500.mp4?')
        self.confirm()
        self.text_in(self.message('recordings'), '081500.mp4 was deleted.')
        self.assertFalse(os.path.exists(f'{ROOT}/sd/20240501/081500.mp4'))
        self.text_in('details[data-folder="20240501"] summary', '2 files')

        self.click('details[data-folder="20240502"] button.delete-folder')
        self.confirm()
        self.text_in(self.message('recordings'), '20240502 was deleted.')
        self.assertFalse(os.path.exists(f'{ROOT}/sd/20240502'))

        self.click('#storage-format')
        self.text_in('#confirm-text', 'Erase every recording')
        self.confirm()
        self.text_in(self.message('recordings'), 'The card was formatted.')

    @on_failure_screenshot
    def test_07_watermark_checked_in_the_page_then_sent(self):
        self.open_section('watermark')
        with open('/tmp/wide.png', 'wb') as f:
            f.write(png(2000, 4))
        with open('/tmp/logo.png', 'wb') as f:
            f.write(png(64, 32))
        picker = self.driver.find_element(By.ID, 'watermark-file')
        picker.send_keys('/tmp/wide.png')
        self.text_in(self.message('watermark'), 'The picture is 2000 × 4 pixels')
        self.assertFalse(self.driver.find_element(By.ID, 'watermark-upload').is_enabled())
        picker.send_keys('/tmp/logo.png')
        self.text_in(self.message('watermark'), 'The picture can be sent.')
        self.text_in('#watermark-facts', '64 × 32')
        self.find('#watermark-preview')
        self.click('#watermark-upload')
        self.text_in(self.message('watermark'), 'The watermark was replaced.')
        with open('/tmp/logo.png', 'rb') as sent, open(f'{ROOT}/images/watermark/logo.png', 'rb') as kept:
            self.assertEqual(sent.read(), kept.read())

    @on_failure_screenshot
    def test_08_firmware_upload_and_installation_progress_move(self):
        self.open_section('firmware')
        image = os.urandom(3 << 20)
        with open('/tmp/firmware.bin', 'wb') as f:
            f.write(image)
        self.driver.find_element(By.ID, 'firmware-file').send_keys('/tmp/firmware.bin')
        self.click('#firmware-start')
        self.confirm()
        bar = self.driver.find_element(By.ID, 'firmware-install')
        # The installation's progress shows while the upgrade application reports it.
        self.wait(lambda d: 0 < float(bar.get_attribute('value')) < 100, 20)
        self.text_in(self.message('firmware'), 'The upgrade finished.', 30)
        self.assertEqual('100', self.driver.find_element(By.ID, 'firmware-upload').get_attribute('value'))
        self.assertEqual('100', bar.get_attribute('value'))
        with open('/tmp/upgrade', 'rb') as f:
            self.assertEqual(image, f.read())

    @on_failure_screenshot
    def test_09_network_settings_saved_and_a_scan_shows_it_is_busy(self):
        section = self.open_section('network')
        ssid = self.wait(lambda d: section.find_element(By.CSS_SELECTOR, '#wifi-form input[name="SSID"]'))
        self.wait(lambda d: ssid.get_attribute('value') == 'Workshop-2G')
        self.type_into(ssid, 'Lab')
        self.click('#wifi-save')
        self.text_in(self.message('network'), 'The WIFI settings were saved.')
        self.click('#wifi-scan')
        self.find('#wifi-busy')
        self.text_in(self.message('network'), '3 networks found.')
        self.wait(EC.invisibility_of_element_located((By.ID, 'wifi-busy')))
        self.driver.find_elements(By.CSS_SELECTOR, '#wifi-hotspots tr.hotspot button')[2].click()
        self.assertEqual('Guest', ssid.get_attribute('value'))
        self.click('#nav button[data-section="status"]')
        section = self.open_section('network')
        self.wait(lambda d: d.find_element(By.CSS_SELECTOR, '#wifi-form input[name="SSID"]').get_attribute('value') == 'Lab')

    @on_failure_screenshot
    def test_10_other_commands_by_form_and_as_raw_json(self):
        self.open_section('commands')
        Select(self.find('#command-name')).select_by_value('GetStorageStatus')
        self.click('#command-form button[type=submit]')
        self.text_in(self.message('commands'), 'Done.')
        self.driver.find_element(By.CSS_SELECTOR, '#commands details summary').click()
        self.type_into(self.find('#raw-action'), 'get_device_localtime')
        self.click('#raw-form button[type=submit]')
        self.text_in('#raw-reply', '"local_time"')

    @on_failure_screenshot
    def test_11_the_pages_follow_the_server_to_a_new_port_with_their_session(self):
        self.open_section('port')
        self.text_in('#port-current', str(self.port))
        new_port = free_port()
        self.type_into(self.find('#port-new'), str(self.port))
        self.click('#port-check')
        self.text_in(self.message('port'), f'Port {self.port} is in use on the device.')
        self.type_into(self.find('#port-new'), str(new_port))
        self.click('#port-check')
        self.text_in(self.message('port'), f'Port {new_port} is free.')
        self.click('#port-move')
        self.confirm()
        self.wait(EC.url_to_be(f'http://127.0.0.1:{new_port}/console.html'), 30)
        type(self).port = new_port
        # Still logged in, on the section it came from, which reads the new port from the server.
        self.text_in('#who', 'admin')
        self.text_in('#port-current', str(new_port))

    @on_failure_screenshot
    def test_12_logout_returns_to_the_login_page(self):
        self.open_section('status')
        self.click('#logout')
        self.text_in('#notice', 'You have logged out.')

    @on_failure_screenshot
    def test_13_a_reboot_shows_its_state_and_returns_to_the_login_page(self):
        self.open_section('reboot')
        self.click('#reboot-start')
        self.confirm()
        self.text_in('#reboot-state', 'Restarting')
        self.wait(EC.url_contains('/login.html?why=restarted'), REBOOT_WAIT_S)
        self.text_in('#notice', 'The device has restarted.')
        with open('/tmp/standins.log') as f:
            calls = [line.split()[0] for line in f]
        self.assertEqual(['sync', 'reboot', 'reboot'], calls[-3:])  # the second through the shell

    @on_failure_screenshot
    def test_14_an_idle_session_expires_back_to_the_login_page(self):
        self.log_in(timeout=2)
        self.wait(EC.url_contains('/console.html'))
        self.text_in('#who', 'admin')
        self.wait(EC.url_contains('/login.html?why=expired'), WAIT_S)
        self.text_in('#notice', 'Your session has ended.')


if __name__ == '__main__':
    if not os.environ.get('WEB_TEST_ISOLATED'):
        sys.exit('refusing to run: run this test inside tests/isolate.sh, where /mnt and /tmp are private')
    unittest.main(verbosity=2)
