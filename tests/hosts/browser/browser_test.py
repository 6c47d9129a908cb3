#!/usr/bin/python3
"""The page of `sxscan serve` in a real browser: headless Chromium driven by
Selenium against the virtual scanner. A person's steps: the page lists the
scanner, a preview appears, an area drawn on it gives the pixels `sxscan scan`
gives for that area, a feeder batch downloads as one PDF, Cancel stops a slow
scan; and a page of another site cannot start a scan.

    browser_test.py SXSCAN VSCAN_MODULE [--screenshots DIR]

With --screenshots, pictures of the page at a desktop's and a phone's width go
to DIR (docs/web-page.png and docs/web-page-phone.png come from here). Exits
77, saying why, where Chromium, its driver or a Python module is missing.
"""
import argparse
import functools
import http.server
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import urllib.request

SKIP = 77
CHROMIUM = '/usr/bin/chromium'
DRIVER = '/usr/bin/chromedriver'
MODEL = 'CORVANE QM7110V'
# Without these, headless Chromium stalls on a machine without a network.
CHROMIUM_FLAGS = ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
                  '--disable-background-networking', '--disable-component-update', '--disable-sync']
DESKTOP = (1280, 1100)
PHONE = {'width': 390, 'height': 844, 'deviceScaleFactor': 2, 'mobile': True}
WAIT = 20  # seconds any one step may take
JOB_LINE = re.compile(r'job ([0-9a-f-]{36}): (\w+) (\w+) at (\d+) dpi, (\d+)x(\d+)\+(\d+)\+(\d+), ([\w/]+)')


def missing_prerequisite():
    for path in (CHROMIUM, DRIVER):
        if not os.path.exists(path):
            return path + ' is not installed (Debian packages chromium and chromium-driver)'
    for module, package in (('selenium', 'python3-selenium'), ('PIL', 'python3-pil')):
        try:
            __import__(module)
        except ImportError:
            return 'the Python module %s is missing (Debian package %s)' % (module, package)
    if not shutil.which('qpdf'):
        return 'qpdf is not installed'
    return None


def vscan_ini(sheets, line_delay_us=0):
    return ('[Scanner]\nVendor=CORVANE\nModel=QM7110V\nFirmware=1.00\nPort=USB\n'
            '[Feeder]\nSheets=%d\n[Page]\nLineDelayUs=%d\n' % (sheets, line_delay_us))


class Served:
    """`sxscan serve` on a free loopback port over a virtual scanner in a
    system tree of its own."""

    def __init__(self, sxscan, module):
        self.sxscan = sxscan
        self.root = tempfile.mkdtemp(prefix='sxbrowser-')
        self.module_dir = os.path.join(self.root, 'windows', 'twain_32', 'Corvane', 'VScan')
        os.makedirs(self.module_dir)
        os.makedirs(os.path.join(self.root, 'windows', 'system32'))
        shutil.copy(module, self.module_dir)
        self.configure(sheets=2)
        self.env = dict(os.environ, SX_ROOT=self.root)
        self.log_path = os.path.join(self.root, 'serve.log')
        self.log = open(self.log_path, 'w')
        self.process = subprocess.Popen([sxscan, 'serve', '--port', '0'], stdout=subprocess.PIPE,
                                        stderr=self.log, env=self.env, text=True)
        first = self.process.stdout.readline()
        match = re.search(r'http://127\.0\.0\.1:(\d+)/', first)
        if not match:
            raise RuntimeError('sxscan serve did not start: %r %s' % (first, self.read_log()))
        self.port = int(match.group(1))
        self.url = 'http://127.0.0.1:%d' % self.port

    # Read by the scanner each time a job opens it.
    def configure(self, sheets, line_delay_us=0):
        with open(os.path.join(self.module_dir, 'vscan.ini'), 'w') as ini:
            ini.write(vscan_ini(sheets, line_delay_us))

    def read_log(self):
        with open(self.log_path) as log:
            return log.read()

    def jobs(self):
        return JOB_LINE.findall(self.read_log())

    def status(self):
        with urllib.request.urlopen(self.url + '/eSCL/ScannerStatus', timeout=5) as response:
            return response.read().decode()

    def scan_locally(self, args, output):
        subprocess.run([self.sxscan, 'scan'] + args + ['--units', '300ths', '--output', output],
                       env=self.env, check=True, capture_output=True, cwd=self.root)

    def stop(self):
        self.process.terminate()
        status = self.process.wait(timeout=10)
        self.process.stdout.close()
        self.log.close()
        shutil.rmtree(self.root, ignore_errors=True)
        return status


class QuietHandler(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *args):
        pass


class OtherSite(http.server.ThreadingHTTPServer):
    """A page of another origin: another port of the same machine."""

    def __init__(self, folder):
        with open(os.path.join(folder, 'index.html'), 'w') as page:
            page.write('<!doctype html><title>another site</title>')
        super().__init__(('127.0.0.1', 0), functools.partial(QuietHandler, directory=folder))
        threading.Thread(target=self.serve_forever, daemon=True).start()
        self.url = 'http://127.0.0.1:%d/' % self.server_address[1]


class BrowserTest(unittest.TestCase):
    screenshots = None

    @classmethod
    def setUpClass(cls):
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
        cls.server = Served(cls.sxscan, cls.module)
        cls.folder = tempfile.mkdtemp(prefix='sxbrowser-chromium-')
        cls.downloads = os.path.join(cls.folder, 'downloads')
        options = webdriver.ChromeOptions()
        options.binary_location = CHROMIUM
        for flag in CHROMIUM_FLAGS + ['--user-data-dir=' + os.path.join(cls.folder, 'profile'),
                                      '--window-size=%d,%d' % DESKTOP]:
            options.add_argument(flag)
        options.set_capability('goog:loggingPrefs', {'browser': 'ALL'})
        cls.browser = webdriver.Chrome(service=Service(DRIVER), options=options)
        cls.browser.execute_cdp_cmd('Browser.setDownloadBehavior', {'behavior': 'allow', 'downloadPath': cls.downloads})
        cls.browser.get(cls.server.url + '/')

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()
        status = cls.server.stop()
        shutil.rmtree(cls.folder, ignore_errors=True)
        if status != 0:
            raise AssertionError('sxscan serve ended with %d' % status)

    # ---- helpers ----

    def element(self, id_):
        from selenium.webdriver.common.by import By
        return self.browser.find_element(By.ID, id_)

    def until(self, condition, what):
        from selenium.webdriver.support.ui import WebDriverWait
        try:
            return WebDriverWait(self.browser, WAIT, poll_frequency=0.05).until(lambda _: condition())
        except Exception:
            self.fail('%s did not happen; the page says %r; server log:\n%s' %
                      (what, self.element('message').text, self.server.read_log()[-3000:]))

    def choose(self, id_, value):
        from selenium.webdriver.support.ui import Select
        Select(self.element(id_)).select_by_value(value)

    def finish(self, what):
        """Waits for the scan or preview to end; the page's last words."""
        self.until(lambda: self.element('cancel-button').get_attribute('disabled'), what + ' ending')
        return self.element('message').text

    def download(self, link, name):
        """Follows a download link of the page; the file's path."""
        link.click()
        path = os.path.join(self.downloads, name)
        self.until(lambda: os.path.exists(path), 'the download of ' + name)
        return path

    def drag_on_bed(self, start, end):
        """Drags from and to points given as fractions of the bed."""
        from selenium.webdriver.common.action_chains import ActionChains
        bed = self.element('bed')
        box = bed.rect
        point = lambda f: (int(box['width'] * (f[0] - 0.5)), int(box['height'] * (f[1] - 0.5)))
        x0, y0 = point(start)
        x1, y1 = point(end)
        ActionChains(self.browser).move_to_element_with_offset(bed, x0, y0).click_and_hold() \
            .move_by_offset((x1 - x0) // 2, (y1 - y0) // 2).move_by_offset(x1 - x0 - (x1 - x0) // 2, y1 - y0 - (y1 - y0) // 2) \
            .release().perform()

    def screenshots_of_the_page(self):
        if not self.screenshots:
            return
        self.browser.execute_script('window.scrollTo(0, 0)')
        self.browser.save_screenshot(os.path.join(self.screenshots, 'web-page.png'))
        # A phone shows the settings first: the picture is of the bed below them.
        self.browser.execute_cdp_cmd('Emulation.setDeviceMetricsOverride', PHONE)
        self.browser.execute_script('arguments[0].scrollIntoView()', self.element('bed-section'))
        self.browser.save_screenshot(os.path.join(self.screenshots, 'web-page-phone.png'))
        self.browser.execute_cdp_cmd('Emulation.clearDeviceMetricsOverride', {})

    # ---- the steps, in order ----

    def test_1_lists_the_scanner_and_what_it_offers(self):
        self.until(lambda: self.element('model').text == MODEL, 'the model name')
        from selenium.webdriver.support.ui import Select
        offered = lambda id_: [o.get_attribute('value') for o in Select(self.element(id_)).options]
        self.assertEqual(offered('source'), ['Platen', 'Feeder'])
        self.assertEqual(offered('mode'), ['BlackAndWhite1', 'Grayscale8', 'RGB24'])
        self.assertEqual(offered('format'), ['image/png', 'image/jpeg', 'application/pdf'])
        self.assertIn('150', offered('resolution'))
        # The bed is Letter-wide and A4-long: A4 and Letter fit, Legal does not.
        papers = offered('paper')
        self.assertIn('A4', papers)
        self.assertIn('Letter', papers)
        self.assertNotIn('Legal', papers)
        self.until(lambda: 'paper in the feeder' in self.element('state').text, 'the feeder status')

    def test_2_preview_then_an_area_drawn_on_it_scans_as_sxscan_does(self):
        from PIL import Image
        self.element('preview-button').click()
        self.assertIn('Preview done', self.finish('the preview'))
        self.until(lambda: self.browser.execute_script('return arguments[0].naturalWidth', self.element('preview')) > 0,
                   'the preview picture')
        self.drag_on_bed((0.2, 0.1), (0.6, 0.3))
        self.assertEqual(self.element('paper').get_attribute('value'), 'custom')
        self.choose('resolution', '150')
        self.choose('mode', 'RGB24')
        self.choose('format', 'image/png')
        jobs = len(self.server.jobs())
        self.element('scan-button').click()
        self.assertEqual(self.finish('the scan'), 'Done: 1 page.')
        job = self.server.jobs()[jobs]
        width, height, x, y = (int(v) for v in job[4:8])
        # The area asked for is the one drawn (the bed is 2550 x 3508).
        for got, drawn in ((x / 2550, 0.2), (y / 3508, 0.1), (width / 2550, 0.4), (height / 3508, 0.2)):
            self.assertAlmostEqual(got, drawn, delta=0.02)
        served = Image.open(self.download(self.element('pages').find_element('css selector', 'a.download'),
                                          'scan-1.png'))
        local_path = os.path.join(self.folder, 'local.png')
        self.server.scan_locally(['--source', 'flatbed', '--area', '%d,%d,%d,%d' % (x, y, width, height),
                                  '--mode', 'color', '--resolution', '150'], local_path)
        local = Image.open(local_path)
        # The server widens a line the scanner narrowed to its alignment to
        # the asked width, with white.
        self.assertEqual(served.size[1], local.size[1])
        self.assertEqual(served.size[0], width * 150 // 300)
        self.assertEqual(served.crop((0, 0) + local.size).tobytes(), local.convert(served.mode).tobytes())
        margin = served.crop((local.size[0], 0) + served.size)
        self.assertTrue(all(v == 255 for v in margin.tobytes()), 'the widening is white')
        self.screenshots_of_the_page()

    def test_3_a_feeder_batch_downloads_as_one_pdf(self):
        self.choose('source', 'Feeder')
        self.choose('resolution', '100')
        self.choose('format', 'application/pdf')
        self.element('scan-button').click()
        self.assertEqual(self.finish('the feeder batch'), 'Done: 2 pages.')
        self.assertEqual(len(self.element('pages').find_elements('css selector', 'li img')), 2, 'each page is shown')
        pdf = self.download(self.element('downloads').find_element('css selector', 'a.download'), 'scan.pdf')
        check = subprocess.run(['qpdf', '--check', pdf], capture_output=True, text=True)
        self.assertEqual(check.returncode, 0, check.stdout + check.stderr)
        pages = subprocess.run(['qpdf', '--show-npages', pdf], capture_output=True, text=True).stdout.strip()
        self.assertEqual(pages, '2')

    def test_4_cancel_stops_a_slow_scan(self):
        self.server.configure(sheets=2, line_delay_us=3000)  # 10 s for the whole bed at 300 dpi
        self.choose('source', 'Platen')
        self.choose('paper', 'bed')
        self.choose('resolution', '300')
        self.choose('format', 'image/png')
        self.element('scan-button').click()
        # A PNG's progress is counted in lines.
        self.until(lambda: float(self.element('progress').get_attribute('value')) > 0, 'the progress')
        self.assertRegex(self.element('received').text, r'Page 1: .* received, \d+ of 3508 lines')
        self.element('cancel-button').click()
        cancelled = time.monotonic()
        self.assertEqual(self.finish('the cancelled scan'), 'Cancelled.')
        uuid = self.server.jobs()[-1][0]
        self.until(lambda: 'DELETE /eSCL/ScanJobs/%s: 200' % uuid in self.server.read_log(), 'the DELETE')
        status = ''
        while time.monotonic() - cancelled < WAIT and '<pwg:State>Idle</pwg:State>' not in status:
            status = self.server.status()
            time.sleep(0.1)
        self.assertIn('<pwg:State>Idle</pwg:State>', status)
        self.assertLess(time.monotonic() - cancelled, 5, 'the scanner stops at once')
        # The only job not completed.
        self.assertIn('<pwg:JobState>Canceled</pwg:JobState>', status)
        self.server.configure(sheets=2)

    def test_5_the_page_ran_without_errors_or_refused_content(self):
        # A job's end is a 404 of NextDocument, and a cancelled page is cut:
        # the browser notes both.
        expected = re.compile(r'/NextDocument - .*(404|ERR_INCOMPLETE_CHUNKED_ENCODING)')
        problems = [entry['message'] for entry in self.browser.get_log('browser')
                    if entry['level'] == 'SEVERE' and not expected.search(entry['message'])]
        self.assertEqual(problems, [])

    def test_6_a_page_of_another_site_cannot_start_a_scan(self):
        other = OtherSite(tempfile.mkdtemp(dir=self.folder))
        try:
            self.browser.get(other.url)
            jobs = len(self.server.jobs())
            # A plain form-like post needs no permission from the server, and
            # an XML one would ask first: neither may start a job.
            outcome = self.browser.execute_async_script(
                'const done = arguments[arguments.length - 1]; const url = arguments[0];'
                'const body = "<scan:ScanSettings xmlns:scan=\\"http://schemas.hp.com/imaging/escl/2011/05/03\\"/>";'
                'const tries = [fetch(url, {method: "POST", mode: "no-cors", body}),'
                '               fetch(url, {method: "POST", headers: {"Content-Type": "text/xml"}, body})];'
                'Promise.allSettled(tries).then((r) => done(r.map((x) => x.status)));',
                self.server.url + '/eSCL/ScanJobs')
            self.assertEqual(outcome[1], 'rejected', 'the browser kept the XML post from the server')
            self.until(lambda: 'POST /eSCL/ScanJobs: 403' in self.server.read_log(), 'the refusal')
            time.sleep(0.5)
            self.assertEqual(len(self.server.jobs()), jobs, 'no job was started')
        finally:
            other.shutdown()
            other.server_close()

def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('sxscan')
    parser.add_argument('vscan')
    parser.add_argument('--screenshots')
    args, rest = parser.parse_known_args()
    reason = missing_prerequisite()
    if reason:
        print('browser: skipped: ' + reason)
        return SKIP
    BrowserTest.sxscan, BrowserTest.module = os.path.abspath(args.sxscan), os.path.abspath(args.vscan)
    BrowserTest.screenshots = args.screenshots and os.path.abspath(args.screenshots)
    started = time.monotonic()
    result = unittest.main(argv=[sys.argv[0]] + rest, exit=False, verbosity=2).result
    print('browser: %.0f s' % (time.monotonic() - started))
    return 0 if result.wasSuccessful() else 1


if __name__ == '__main__':
    sys.exit(main())
