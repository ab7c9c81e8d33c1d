"""The pages of a report, used as people use them: in a real browser, without a network.

    report_test.py ZIRN-RUN [TEST]      exit status 77: there is no browser
"""
import glob
import json
import os
import re
import subprocess
import sys
import tempfile
import time
import unittest
from html.parser import HTMLParser

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import made_runs
from browser import Browser, program

ZIRN_RUN = os.path.abspath(sys.argv[1])
ROWS = '[...document.querySelectorAll("#runs tbody tr")]'
COLUMNS = dict(start=0, name=1, station=2, unit=3, verdict=4, fault=5, step=6, duration=7, lost=8, repeated=9)
HOSTILE = '<script>document.title="taken"</script>"\'><img src=x onerror=document.title=1> \u202egnp.\u05d0\u05d1 </bdi></table>'


def text_of(path):
    with open(path, encoding='utf-8') as file:
        return file.read()


class Elements(HTMLParser):
    """What a page opens and does not close, and the other way round."""

    def __init__(self, text):
        super().__init__()
        self.opened, self.wrong = [], []
        self.feed(text)
        self.close()
        self.wrong += self.opened

    def handle_starttag(self, tag, attrs):
        if tag not in ('meta', 'link', 'br', 'input'):
            self.opened.append(tag)

    def handle_startendtag(self, tag, attrs):
        pass

    def handle_endtag(self, tag):
        if self.opened[-1:] == [tag]:
            self.opened.pop()
        else:
            self.wrong.append('%s at line %d' % (tag, self.getpos()[0]))


class Pages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.close)

    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = scratch.name
        self.out = self.folder + '/out'
        self.browser.requests.clear()
        self.browser.errors.clear()
        self.browser.resize(1400, 900)
        self.browser.prefer('light')
        self.addCleanup(self.check_quiet)

    def check_quiet(self):
        """Nothing left the pages' folder, and no script failed or was refused."""
        self.assertEqual([url for url in self.browser.requests if not url.startswith('file://' + self.out)], [])
        self.assertEqual(self.browser.errors, [])

    def report(self, records=None, rows=(), *options):
        """Returns the seconds that the report took, without collecting."""
        database = made_runs.database_of(ZIRN_RUN, self.folder, records or {'fails': made_runs.failing_run('fails')})
        made_runs.put_many(database, rows)
        begin = time.monotonic()
        subprocess.run([ZIRN_RUN, 'report', database, '-o', self.out, *options], check=True, capture_output=True)
        return time.monotonic() - begin

    def open(self, page='index.html'):
        return self.browser.open('file://%s/%s' % (self.out, page))

    def open_run(self, fragment='', **options):
        self.report(**options)
        page = os.path.relpath(glob.glob(self.out + '/runs/*.html')[0], self.out)
        self.open(page + fragment)

    def column(self, name):
        return self.browser.run('%s.map(row => row.cells[%d].textContent)' % (ROWS, COLUMNS[name]))

    def shown(self):
        return self.browser.run('document.getElementById("shown").textContent')

    def lit(self):
        return self.browser.run('[...document.querySelectorAll("ol.rows li.lit:not([hidden])")].map(row => row.dataset.first)')


class Overview(Pages):
    def test_says_the_figures(self):
        self.report(rows=made_runs.many(1000))
        self.open()
        rows = list(made_runs.many(1000))
        known = [row for row in rows if row['mac']]
        units = len(known) + 1  # and the unit of the record, which failed
        passed = sum(row['verdict'] == 'passed' for row in known)
        tiles = self.browser.run('[...document.querySelectorAll(".tiles .figure")].map(tile => tile.textContent)')
        durations = sorted([row['duration'] for row in rows] + [0.02])
        self.assertEqual(tiles[:3], ['%.1f %%' % (100 * passed / units), '1,001', str(units)])
        self.assertEqual(tiles[3], '%.1f s' % durations[500])
        without = len(rows) - len(known)
        self.assertIn('%d runs show no identity' % without, self.browser.run('document.querySelector(".tiles").textContent'))

    def test_tells_the_bad_cable_from_the_others(self):
        self.report(rows=made_runs.many(2000))
        self.open()
        marked = self.browser.run('[...document.querySelectorAll("td.out")].map(cell => cell.parentNode.cells[0].textContent)')
        self.assertEqual(marked, ['line-07', 'line-07'])

    def test_sorts_the_stations(self):
        self.report(rows=made_runs.many(2000))
        self.open()
        stations = '[...document.querySelectorAll("#compared tbody th")].map(cell => cell.textContent)'
        lost = '[...document.querySelectorAll("#compared tbody tr")].map(row => Number(row.cells[5].dataset.value))'
        head = '#compared th[data-key=lost]'
        by_name = self.browser.run(stations)
        self.assertEqual(by_name, sorted(by_name))
        self.assertEqual(self.browser.run('document.querySelector("#compared th").ariaSort'), 'ascending')
        self.browser.click(head + ' button')
        self.assertEqual(self.browser.run(stations)[0], 'line-07')
        self.assertEqual(self.browser.run(lost), sorted(self.browser.run(lost), reverse=True))
        self.assertEqual(self.browser.run('document.querySelector("%s").ariaSort' % head), 'descending')
        self.assertEqual(self.browser.run('location.hash'), '#stations=-lost')
        self.browser.click(head + ' button')
        self.assertEqual(self.browser.run(lost), sorted(self.browser.run(lost)))
        self.browser.go(-1)
        self.browser.wait('location.hash === "#stations=-lost" && %s[0] === "line-07"' % stations)
        self.browser.go(-1)
        self.browser.wait('!location.hash && %s[0] === "%s"' % (stations, by_name[0]))

    def test_counts_causes_and_steps_most_frequent_first(self):
        self.report(rows=made_runs.many(1000))
        self.open()
        for title, key in (('causes', 'cause'), ('steps', 'step')):
            counts = [row[key] for row in made_runs.many(1000) if row['verdict'] == 'failed']
            expected = sorted(map(counts.count, set(counts)), reverse=True)
            said = self.browser.run('[...document.querySelectorAll("[aria-labelledby=%s] tbody tr")].map(row => '
                                    'Number(row.querySelector("td.number").textContent))' % title)
            self.assertEqual([count for count in said if count > 1], [count for count in expected if count > 1])

    def test_filters_by_choice_word_and_link_and_goes_back(self):
        self.report(rows=made_runs.many(1000))
        self.open()
        self.assertEqual(self.shown(), '1,001 of 1,001 runs')
        self.browser.run('(() => { const choice = document.querySelector("[name=verdict]"); choice.value = "failed";'
                         'choice.dispatchEvent(new Event("change")) })()')
        failed = sum(row['verdict'] == 'failed' for row in made_runs.many(1000)) + 1
        self.assertEqual(self.shown(), '%d of 1,001 runs' % failed)
        self.browser.click('[name=search]')
        self.browser.type('line-07 TEST')
        at_seven = sum(row['verdict'] == 'failed' and row['station'] == 'line-07' for row in made_runs.many(1000))
        self.assertEqual(self.shown(), '%d of 1,001 runs' % at_seven)
        self.assertEqual(set(self.column('station')), {'line-07'})
        self.browser.click('[aria-labelledby=steps] tbody a')
        self.browser.wait('location.hash.startsWith("#step=")')
        step = self.browser.run('document.querySelector("[aria-labelledby=steps] tbody a").textContent')
        self.browser.wait('document.getElementById("shown").textContent.endsWith("step %s")' % step)
        self.assertEqual(set(self.column('step')), {step})
        self.browser.go(-1)
        self.browser.wait('document.getElementById("shown").textContent.startsWith("%d of")' % at_seven)
        self.assertEqual(self.browser.run('document.querySelector("[name=search]").value'), 'line-07 TEST')
        self.browser.go(1)
        self.browser.wait('document.getElementById("shown").textContent.endsWith("step %s")' % step)

    def test_sorts_by_each_column_both_ways(self):
        self.report(rows=made_runs.many(90))
        self.open()
        for name in COLUMNS:
            orders = []
            for _ in range(2):
                self.browser.run('document.querySelector("#runs th[data-key=%s] button").click()' % name)
                orders.append(self.browser.run('document.querySelector("#runs th[data-key=%s]").ariaSort' % name))
                values = self.column(name)
                if name in ('duration', 'lost', 'repeated'):
                    values = list(map(float, values))
                elif name == 'unit':
                    values = ['' if value == 'no identity' else value for value in values]
                elif name == 'fault':
                    values = [re.sub(r' \(.*', '', value) for value in values]
                self.assertEqual(values, sorted(values, reverse=orders[-1] == 'descending') if name != 'verdict' else values)
            self.assertEqual(set(orders), {'ascending', 'descending'})

    def test_opens_a_run_by_keyboard_and_comes_back_to_what_was_filtered(self):
        self.report(rows=made_runs.many(50))
        self.open('index.html#search=fails')
        self.browser.run('document.querySelector("#runs tbody a").focus()')
        self.browser.press('Enter')
        self.browser.wait('document.querySelector("h1").textContent === "fails FAILED"')
        self.browser.go(-1)
        self.browser.wait('!!document.getElementById("shown") && document.getElementById("shown").textContent === "1 of 51 runs"')

    def test_draws_rows_when_they_are_scrolled_to(self):
        self.report(rows=made_runs.many(1000))
        self.open()
        few = self.browser.run(ROWS + '.length')
        self.assertLess(few, 500)
        self.browser.wait('(() => { scrollTo(0, document.body.scrollHeight); return %s.length === 1001 })()' % ROWS)

    def rows_on_paper(self):
        return len(re.findall(rb'/S /TR\b', self.browser.printed()))

    def test_prints_rows_that_were_not_scrolled_to(self):
        self.report(rows=made_runs.many(1500))
        self.open('index.html#verdict=none')
        others = self.rows_on_paper()  # of tables that do not depend on what is chosen
        self.open()
        drawn = self.browser.run(ROWS + '.length')
        self.assertLess(drawn, 500)
        self.browser.call('Emulation.setEmulatedMedia', media='print')
        self.assertEqual(self.browser.run('document.getElementById("more").getClientRects().length'), 0)
        self.browser.call('Emulation.setEmulatedMedia', media='')
        self.assertGreaterEqual(self.rows_on_paper(), others + 1501)

    def test_says_on_paper_which_part_of_very_many_runs_is_there(self):
        self.report(rows=made_runs.many(2100))
        self.open()
        self.browser.run('addEventListener("beforeprint", () => { '
                         'window.said = document.getElementById("on-paper").textContent })')
        rows = self.rows_on_paper()
        self.assertGreaterEqual(rows, 2000)
        self.assertLess(rows, 2100)
        self.assertEqual(self.browser.run('said'), 'The first 2,000 of 2,101 runs are on paper.')
        self.assertEqual(self.browser.run('document.getElementById("on-paper").textContent'), '')

    def test_says_which_part_of_very_many_runs_is_in_the_table(self):
        self.report(rows=made_runs.many(20100))
        self.open()
        self.assertEqual(self.shown(), '20,000 of 20,000 runs')
        self.assertIn('The newest 20,000 runs are in the table; 101 older ones are in the figures above only.',
                      self.browser.run('document.body.textContent'))
        self.assertEqual(self.column('name')[0], 'run-020099')

    def test_ten_thousand_runs_open_soon(self):
        self.assertLess(self.report(rows=made_runs.many(10000)), 10)  # seconds
        took = []
        for _ in range(3):
            before = self.browser.processor_seconds()
            seconds = self.open()
            used = self.browser.processor_seconds() - before
            self.assertGreater(used, 0)
            took.append(min(seconds, used))  # a busy machine takes longer, and no more of a processor
        self.assertLess(min(took), 2)


class Run(Pages):
    def test_folds_and_unfolds_a_transfer(self):
        self.open_run()
        hidden = 'document.querySelectorAll("ol.rows li[hidden]").length'
        words = '[...document.querySelectorAll("ol.rows li:not([hidden]) .aside")].map(row => row.textContent)'
        before = self.browser.run(words)
        self.assertFalse([row for row in before if 'DATA' in row and 'bootscript' in row])
        self.browser.click('ol.rows li[data-short]:not([hidden]) button')
        self.assertGreater(len(self.browser.run(words)), len(before))
        self.assertEqual(self.browser.run('document.activeElement.ariaExpanded'), 'true')
        self.browser.press('Enter')
        self.assertEqual(self.browser.run(words), before)
        self.browser.click('#unfold')
        self.assertEqual(self.browser.run(hidden), self.browser.run('document.querySelectorAll("li[data-short]").length'))
        self.browser.click('#fold')
        self.assertEqual(self.browser.run('document.querySelectorAll("li[data-transfer]:not([data-short]):not([hidden])").length'), 0)

    def test_shows_the_bytes_of_the_frame_that_is_pointed_at(self):
        self.open_run()
        self.browser.click('#unfold')
        row = self.browser.run('[...document.querySelectorAll("ol.rows li:not([hidden])")].find(row => '
                               'row.textContent.includes("kernel.img") && !row.textContent.includes("RRQ")).dataset.first')
        self.browser.point_at('ol.rows li[data-first="%s"]:not([hidden]) a' % row)
        self.browser.wait('document.querySelector("#frame b").textContent.startsWith("Frame %s, ")' % row)
        shown = self.browser.run('document.querySelector("#frame pre").textContent')
        self.assertTrue(shown.startswith('0000  02 00 ac 28 00 01 02 00 ac 28 00 02 08 00 45 00  ...(.....(....E.'), shown)
        self.assertIn('6b 65 72 6e  .....E......kern\n0030  65 6c 2e 69 6d 67', shown)

    def test_goes_from_a_claim_to_its_frames_and_back(self):
        self.open_run()
        numbers = re.findall(r'\d+', self.browser.run('document.querySelector("a.evidence").textContent'))
        self.assertEqual(self.lit(), [])
        self.browser.click('a.evidence')
        self.browser.wait('document.querySelector("ol.rows li.lit")')
        self.assertEqual(min(map(int, self.lit())), int(numbers[0]))
        self.assertLessEqual(max(map(int, self.lit())), int(numbers[-1]))
        self.browser.go(-1)
        self.browser.wait('!document.querySelector("ol.rows li.lit")')
        self.browser.go(1)
        self.browser.wait('document.querySelector("ol.rows li.lit")')

    def test_a_link_to_a_frame_shows_it_also_where_it_is_folded(self):
        self.open_run('#frame-5')
        self.browser.wait('document.querySelector("ol.rows li.lit")')
        self.assertTrue(self.browser.run('document.querySelector("#frame b").textContent').startswith('Frame 5, '))
        self.assertTrue(self.browser.run('(() => { const pane = document.querySelector(".pane").getBoundingClientRect();'
                                         'const row = document.querySelector("ol.rows li.lit:not([hidden])").getBoundingClientRect();'
                                         'return row.top >= pane.top && row.bottom <= pane.bottom })()'))

    def test_goes_through_rows_and_frames_by_keys(self):
        self.open_run()
        rows = [row for row in self.browser.run('[...document.querySelectorAll("ol.rows li:not([hidden])")].map(row => row.dataset.first)')]
        place = self.browser.run('[...document.querySelectorAll("ol.rows li:not([hidden])")].findIndex(row => "short" in row.dataset)')
        self.browser.run('document.querySelector("ol.rows a").focus()')
        for _ in range(place):
            self.browser.press('ArrowDown')
        self.assertEqual(self.browser.run('document.activeElement.parentNode.dataset.first'), rows[place])
        title = 'document.querySelector("#frame b").textContent'
        self.assertTrue(self.browser.run(title).startswith('Frame %s, of ' % rows[place]))
        self.browser.press('ArrowRight')
        self.assertTrue(self.browser.run(title).startswith('Line %d, of ' % (int(rows[place]) + 1)))
        self.browser.press('ArrowRight')
        self.assertTrue(self.browser.run(title).startswith('Frame %d, of ' % (int(rows[place]) + 2)))
        self.browser.press('Enter')
        self.browser.wait('location.hash.startsWith("#frame")')

    def test_zooms(self):
        self.open_run()
        width = 'document.querySelector("ol.rows").getBoundingClientRect().width'
        before = self.browser.run(width)
        self.browser.click('#nearer')
        self.assertAlmostEqual(self.browser.run(width), before * 1.25, delta=2)
        self.browser.click('#fitting')
        self.assertAlmostEqual(self.browser.run(width), self.browser.run('document.querySelector(".pane").clientWidth'), delta=2)

    def test_says_why_there_is_no_picture(self):
        self.report(rows=made_runs.many(30))
        failed = next(row['content'] for row in made_runs.many(30) if row['verdict'] == 'failed')
        self.open('runs/%s.html' % failed)
        self.assertIn('The record was not here when this page was made.', self.browser.run('document.body.textContent'))
        self.assertIn('it went wrong', self.browser.run('document.body.textContent'))

    def test_every_run_has_a_page_where_that_is_asked_for(self):
        records = {'fails': made_runs.failing_run('fails'), 'passes': made_runs.passing_run('passes')}
        self.report(records)
        self.assertEqual(len(glob.glob(self.out + '/runs/*.html')), 1)
        self.report(records, (), '--all-pages')
        self.assertEqual(len(glob.glob(self.out + '/runs/*.html')), 2)
        self.report(records)
        self.assertEqual(len(glob.glob(self.out + '/runs/*.html')), 1)


class Everywhere(Pages):
    WIDE = 'document.documentElement.scrollWidth > innerWidth'

    def pages(self):
        """Both kinds, of a run with a picture."""
        self.report(rows=made_runs.many(300))
        run = next(page for page in glob.glob(self.out + '/runs/*.html') if 'class="rows"' in text_of(page))
        return ['index.html', os.path.relpath(run, self.out)]

    def test_hostile_names_do_nothing(self):
        text = HOSTILE.encode()
        record = made_runs.failing_run(HOSTILE, text[:200], text[:200])
        row = dict(next(made_runs.many(1)), station=HOSTILE, name=HOSTILE, owner=HOSTILE, cause=HOSTILE, sentence=HOSTILE,
                   step=HOSTILE, mac=HOSTILE, verdict='failed')
        self.report({'hostile': record}, [row])
        for page in ['index.html'] + [os.path.relpath(page, self.out) for page in glob.glob(self.out + '/runs/*.html')]:
            self.open(page)
            self.assertEqual(self.browser.run('document.querySelectorAll("img, script:not([src]):not([type])").length'), 0, page)
            self.assertNotIn('taken', self.browser.run('document.title') if 'script' not in self.browser.run('document.title') else '')
            text = self.browser.run('document.body.textContent')
            self.assertIn('<script>', text)
            self.assertNotIn('\u202e', text)
        self.open()
        self.browser.click('[aria-labelledby=stations] tbody tr:nth-child(1) a')
        self.browser.wait('/^1 of 2/.test(document.getElementById("shown").textContent)')

    def test_are_as_wide_as_the_screen(self):
        for page in self.pages():
            for width in (390, 1400):
                self.browser.resize(width, 844)
                self.open(page)
                self.assertFalse(self.browser.run(self.WIDE), '%s at %d' % (page, width))

    def test_words_can_be_read_in_light_and_dark(self):
        contrast = text_of(os.path.join(os.path.dirname(os.path.abspath(__file__)), 'contrast.js'))
        for page in self.pages():
            for scheme in ('light', 'dark'):
                self.browser.prefer(scheme)
                self.open(page)
                self.assertEqual(self.browser.run(contrast), [], '%s, %s' % (page, scheme))

    def test_print_on_a4(self):
        for page in self.pages():
            self.open(page)
            printed = self.browser.printed()
            self.assertTrue(printed.startswith(b'%PDF'))
            sizes = set(re.findall(rb'/MediaBox \[0 0 (\d+)[.\d]* (\d+)', printed))
            self.assertLessEqual(sizes, {(b'594', b'841'), (b'595', b'842'), (b'594', b'842'), (b'595', b'841')})
            self.browser.call('Emulation.setEmulatedMedia', media='print')
            self.assertEqual(self.browser.run('[...document.querySelectorAll("form, .tools, nav, #frame")].filter(one => '
                                              'one.getClientRects().length > 0).length'), 0)
            self.browser.call('Emulation.setEmulatedMedia', media='')

    def test_have_names_for_who_does_not_see_them(self):
        for page in self.pages():
            self.open(page)
            tree = self.browser.call('Accessibility.getFullAXTree')['nodes']
            nameless = [node['role']['value'] for node in tree if not node.get('ignored') and
                        node.get('role', {}).get('value') in ('button', 'link', 'searchbox', 'combobox', 'image', 'region', 'toolbar')
                        and not node.get('name', {}).get('value')]
            self.assertEqual(nameless, [], page)
            headings = self.browser.run('[...document.querySelectorAll("h1, h2")].map(one => one.tagName)')
            self.assertEqual((headings[0], headings.count('H1')), ('H1', 1))

    def test_close_what_they_open(self):
        for page in self.pages():
            self.assertEqual(Elements(text_of(self.out + '/' + page)).wrong, [], page)

    def test_are_the_same_bytes_for_the_same_runs(self):
        pages = self.pages()
        before = {page: text_of(self.out + '/' + page) for page in pages}
        subprocess.run([ZIRN_RUN, 'report', self.folder + '/runs.db', '-o', self.out], check=True)
        self.assertEqual({page: text_of(self.out + '/' + page) for page in pages}, before)
        self.assertEqual(glob.glob(self.out + '/**/*.part', recursive=True), [])

    def test_leave_the_pages_of_others_alone(self):
        os.mkdir(self.out)
        with open(self.out + '/index.html', 'w') as file:
            file.write('<title>mine</title>')
        database = made_runs.database_of(ZIRN_RUN, self.folder, {'fails': made_runs.failing_run('fails')})
        refused = subprocess.run([ZIRN_RUN, 'report', database, '-o', self.out], capture_output=True, text=True)
        self.assertEqual((refused.returncode, refused.stderr), (
            3, 'zirn-run: %s/index.html: expected a report, or nothing, found another page\n' % self.out))
        self.assertEqual(text_of(self.out + '/index.html'), '<title>mine</title>')


if __name__ == '__main__':
    if program() is None:
        print('expected a browser, found none of chromium, chromium-browser and google-chrome')
        sys.exit(77)
    unittest.main(argv=sys.argv[:1] + sys.argv[2:])
