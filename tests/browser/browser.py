"""A headless Chromium, driven through a pipe: no port, no driver, no network."""
import base64
import fcntl
import glob
import json
import os
import select
import shutil
import subprocess
import tempfile
import time

PROGRAMS = ('chromium', 'chromium-browser', 'google-chrome')


def program():
    """The browser's path; None where there is none."""
    return next(filter(None, map(shutil.which, PROGRAMS)), None)


class Failed(Exception):
    """What the browser did not do."""


class Browser:
    """One page of a browser of its own. What it asks a network for, and what its console says, is kept in `requests` and `errors`."""

    def __init__(self, width=1400, height=900, patience=60):
        self.patience = patience
        self.home = tempfile.mkdtemp(prefix='browser.')
        ends = [fcntl.fcntl(end, fcntl.F_DUPFD_CLOEXEC, 10) for end in os.pipe() + os.pipe()]
        to_browser, self._to, self._from, from_browser = ends
        command = [program(), '--headless=new', '--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage',
                   '--remote-debugging-pipe', '--no-first-run', '--disable-background-networking', '--disable-sync',
                   '--disable-component-update', '--disable-extensions', '--user-data-dir=' + self.home + '/profile',
                   '--window-size=%d,%d' % (width, height), 'about:blank']
        # It reads from descriptor 3 and writes to 4.
        self._browser = subprocess.Popen(
            command, preexec_fn=lambda: (os.dup2(to_browser, 3), os.dup2(from_browser, 4)), pass_fds=(3, 4),
            env=dict(os.environ, HOME=self.home), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(to_browser)
        os.close(from_browser)
        self._number = 0
        self._buffer = b''
        self._session = None
        self._loaded = False
        self.requests = []
        self.errors = []
        target = self.call('Target.createTarget', url='about:blank')['targetId']
        self._session = self.call('Target.attachToTarget', targetId=target, flatten=True)['sessionId']
        for domain in ('Page', 'Runtime', 'Network', 'Log'):
            self.call(domain + '.enable')
        self.resize(width, height)

    def close(self):
        os.close(self._to)
        try:
            self._browser.wait(10)
        except subprocess.TimeoutExpired:
            self._browser.kill()
            self._browser.wait()
        os.close(self._from)
        shutil.rmtree(self.home, ignore_errors=True)

    # The protocol: objects of JSON, each with a NUL behind it.
    def _receive(self, until):
        while b'\0' not in self._buffer:
            if not select.select([self._from], [], [], max(0, until - time.monotonic()))[0]:
                raise Failed('the browser is silent')
            got = os.read(self._from, 1 << 20)
            if not got:
                raise Failed('the browser has ended')
            self._buffer += got
        message, self._buffer = self._buffer.split(b'\0', 1)
        message = json.loads(message)
        self._note(message.get('method'), message.get('params', {}))
        return message

    def _note(self, event, told):
        if event == 'Page.loadEventFired':
            self._loaded = True
        elif event == 'Network.requestWillBeSent':
            self.requests.append(told['request']['url'])
        elif event == 'Runtime.exceptionThrown':
            self.errors.append(told['exceptionDetails'].get('exception', {}).get('description', 'exception'))
        elif event == 'Log.entryAdded' and told['entry']['level'] == 'error':
            self.errors.append(told['entry']['text'])

    def call(self, method, **parameters):
        self._number += 1
        message = {'id': self._number, 'method': method, 'params': parameters}
        if self._session:
            message['sessionId'] = self._session
        os.write(self._to, json.dumps(message).encode() + b'\0')
        until = time.monotonic() + self.patience
        while True:
            answer = self._receive(until)
            if answer.get('id') == self._number:
                if 'error' in answer:
                    raise Failed('%s: %s' % (method, answer['error']['message']))
                return answer.get('result', {})

    def open(self, url):
        """Opens a page, and waits until it has loaded. Returns the seconds that took."""
        begin = time.monotonic()
        self._loaded = False
        self.call('Page.navigate', url=url)
        self.wait_for_load(begin)
        return time.monotonic() - begin

    def processor_seconds(self):
        """What the browser's processes have used so far; it is the same whatever else the machine does."""
        parents, used = {}, {}
        for name in glob.glob('/proc/[0-9]*/stat'):
            try:
                with open(name, encoding='utf-8', errors='replace') as file:
                    fields = file.read().rpartition(')')[2].split()
            except OSError:
                continue  # it has ended
            process = int(name.split('/')[2])
            parents[process], used[process] = int(fields[1]), int(fields[11]) + int(fields[12])

        def is_ours(process):
            while process in parents and process != self._browser.pid:
                process = parents[process]
            return process == self._browser.pid
        return sum(ticks for process, ticks in used.items() if is_ours(process)) / os.sysconf('SC_CLK_TCK')

    def wait_for_load(self, begin=None):
        until = (begin or time.monotonic()) + self.patience
        while not self._loaded:
            self._receive(until)

    def run(self, script):
        """The value of a script's expression."""
        answer = self.call('Runtime.evaluate', expression=script, returnByValue=True, awaitPromise=True)
        if 'exceptionDetails' in answer:
            raise Failed(answer['exceptionDetails'].get('exception', {}).get('description', script))
        return answer['result'].get('value')

    def wait(self, script):
        """Until the expression is true, and no error."""
        until = time.monotonic() + self.patience
        while not self.run('(() => { try { return !!(%s) } catch { return false } })()' % script):
            if time.monotonic() > until:
                raise Failed('never: ' + script)
            time.sleep(0.05)

    def resize(self, width, height):
        self.call('Emulation.setDeviceMetricsOverride', width=width, height=height, deviceScaleFactor=1, mobile=width < 500)

    def prefer(self, scheme):
        self.call('Emulation.setEmulatedMedia', features=[{'name': 'prefers-color-scheme', 'value': scheme}])

    def point_at(self, selector):
        """Moves the mouse to the middle of an element that is in view. Returns where that is."""
        self.run('document.querySelector(%s).scrollIntoView({block: "center"})' % json.dumps(selector))
        x, y = self.run('(() => { const box = document.querySelector(%s).getClientRects()[0];'
                        'return [box.x + Math.min(box.width / 2, 300), box.y + box.height / 2] })()' % json.dumps(selector))
        self.call('Input.dispatchMouseEvent', type='mouseMoved', x=x, y=y)
        return x, y

    def click(self, selector):
        x, y = self.point_at(selector)
        for kind in ('mousePressed', 'mouseReleased'):
            self.call('Input.dispatchMouseEvent', type=kind, x=x, y=y, button='left', clickCount=1)

    def press(self, key):
        text = {'text': '\r'} if key == 'Enter' else {'text': key} if len(key) == 1 else {}
        self.call('Input.dispatchKeyEvent', type='keyDown', key=key, code=key, windowsVirtualKeyCode={
            'Enter': 13, 'Tab': 9, 'ArrowLeft': 37, 'ArrowUp': 38, 'ArrowRight': 39, 'ArrowDown': 40}.get(key, 0), **text)
        self.call('Input.dispatchKeyEvent', type='keyUp', key=key, code=key)

    def type(self, text):
        self.call('Input.insertText', text=text)

    def go(self, steps):
        self.run('history.go(%d)' % steps)
        time.sleep(0.3)

    def picture(self, path, whole=True):
        data = self.call('Page.captureScreenshot', captureBeyondViewport=whole)['data'] if not whole else \
            self.call('Page.captureScreenshot', captureBeyondViewport=True, clip=dict(
                zip(('width', 'height'), self.run('[innerWidth, Math.min(document.documentElement.scrollHeight, 6000)]')),
                x=0, y=0, scale=1))['data']
        with open(path, 'wb') as file:
            file.write(base64.b64decode(data))

    def printed(self):
        """The page as a PDF on A4."""
        return base64.b64decode(self.call('Page.printToPDF', paperWidth=8.27, paperHeight=11.69, printBackground=True,
                                          preferCSSPageSize=True)['data'])
