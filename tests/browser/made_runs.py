"""Records of runs, and databases of many, for the pages to show: made here, the same ones every time."""
import hashlib
import json
import random
import sqlite3
import struct
import subprocess

START = 1_700_000_000_000_000_000
UNIT, STATION = (172, 40, 0, 2), (172, 40, 0, 1)


def _block(kind, contents):
    contents += b'\0' * (-len(contents) % 4)
    return struct.pack('<II', kind, len(contents) + 12) + contents + struct.pack('<I', len(contents) + 12)


def _option(code, value):
    return struct.pack('<HH', code, len(value)) + value + b'\0' * (-len(value) % 4)


def _udp(source, target, payload):
    (address, port), (to, to_port) = source, target
    udp = struct.pack('>HHHH', port, to_port, len(payload) + 8, 0) + payload
    ip = struct.pack('>BBHHHBBH', 0x45, 0, len(udp) + 20, 1, 0, 64, 17, 0) + bytes(address) + bytes(to) + udp
    return b'\2\0' + bytes(to) + b'\2\0' + bytes(address) + b'\x08\0' + ip


class Record:
    """A pcapng file of one run, told as it goes; each thing is a millisecond after the one before."""

    def __init__(self, name):
        self._at = START
        self._unit = 2000
        self._answering = 33033
        self.bytes = _block(0x0A0D0D0A, struct.pack('<IHHq', 0x1A2B3C4D, 1, 0, -1))
        self.bytes += _block(1, struct.pack('<HHI', 1, 0, 0) + _option(2, b'lan0') + _option(9, b'\x09') + _option(0, b''))
        self.says('a run begins', ZIRN_ENTRY='run-begins', ZIRN_NAME=name, ZIRN_TITLE=name, ZIRN_COMMAND='TFTP -o 172.40.0.1')
        self.prints('Starting TFTP server on 172.40.0.1:69 PPT Server: 172.30.0.254')

    def says(self, message, **fields):
        self._at += 1_000_000
        text = b'__REALTIME_TIMESTAMP=%d\n' % (self._at // 1000)
        for name, value in dict(MESSAGE=message, PRIORITY='6', SYSLOG_IDENTIFIER='zirn-run', **fields).items():
            value = value.encode() if isinstance(value, str) else value
            text += name.encode() + b'\n' + struct.pack('<Q', len(value)) + value + b'\n'
        self.bytes += _block(9, text)

    def prints(self, line):
        self.says(line, ZIRN_ENTRY='line')

    def frame(self, source, target, payload):
        self._at += 1_000_000
        frame = _udp(source, target, payload)
        self.bytes += _block(6, struct.pack('<IIIII', 0, self._at >> 32, self._at & 0xFFFFFFFF, len(frame), len(frame)) + frame)

    def asks(self, name):
        self._unit += 1
        self._answering += 100
        self.frame((UNIT, self._unit), (STATION, 69), b'\0\1' + name + b'\0octet\0')

    def answers(self, payload):
        self.frame((STATION, self._answering), (UNIT, self._unit), payload)

    def acknowledges(self, block):
        self.frame((UNIT, self._unit), (STATION, self._answering), b'\0\4' + struct.pack('>H', block))

    def reads(self, name, blocks=3):
        self.asks(name)
        self.prints(b'RRQ ' + name)
        for block in range(1, blocks + 1):
            self.answers(b'\0\3' + struct.pack('>H', block) + b'x' * (512 if block < blocks else 100))
            self.acknowledges(block)

    def is_refused(self, name, message):
        self.asks(name)
        self.prints(b'RRQ ' + name)
        self.answers(b'\0\5\0\1' + message + b'\0')

    def gives(self, name):
        self.asks(name)
        self.answers(b'\0\3\0\1')
        self.acknowledges(1)
        self.prints(b'Cmd received: ' + name)

    def ends(self, status=2):
        self.says('the station ended', ZIRN_ENTRY='station-ends', ZIRN_STATUS=str(status))
        return self.bytes


def failing_run(name, file=b'kernel.img', message=b'File not found'):
    """A unit that reads one file, is refused another, and fails."""
    run = Record(name)
    run.reads(b'bootscript.txt')
    run.is_refused(file, message)
    run.gives(b'F_l_m_02PPT_FAILED')
    return run.ends()


def passing_run(name):
    run = Record(name)
    run.reads(b'bootscript.txt')
    run.gives(b'F_l_m_02PPT_PASSED')
    return run.ends()


CAUSES = (('unit', 'unit.failed'), ('test-network', 'net.loss'), ('ppt-server', 'ppt.silent'), ('board', 'board.tool-failed'))


def many(count, stations=40, seed=1):
    """Rows of runs: half a minute apart, one in ten failed, one in fifty without identity; station 7 has a bad cable."""
    chance = random.Random(seed)
    for number in range(count):
        second = 1_767_225_600 + number * 30  # 2026-01-01
        station = number % stations
        failed = chance.random() < 0.1
        owner, cause = chance.choices(CAUSES, (6, 3, 2, 1))[0] if failed else ('none', 'none')
        yield dict(
            content=hashlib.sha256(b'%d' % number).hexdigest(), station='line-%02d' % station, name='run-%06d' % number,
            second=second, duration=round(3 + chance.expovariate(0.5), 3), verdict='failed' if failed else 'passed',
            mac=None if chance.random() < 0.02 else '02:00:00:%02x:%02x:%02x' % (number >> 16 & 255, number >> 8 & 255, number & 255),
            owner=owner, cause=cause, sentence='it went wrong at %d' % number if failed else 'nothing',
            step='F_l_m_%02dTEST_FAILED' % chance.choices((1, 2, 3), (5, 2, 1))[0] if failed else None,
            lost=chance.randrange(40) if station == 7 else 0, repeated=chance.randrange(60) if station == 7 else chance.randrange(2))


def put_many(database, rows):
    """Into the SQLite file that collect has made."""
    from datetime import datetime, timezone
    with sqlite3.connect(database) as session:
        for row in rows:
            started = datetime.fromtimestamp(row['second'], timezone.utc).strftime('%Y-%m-%dT%H:%M:%S.000Z')
            claim = dict(owner=row['owner'], cause=row['cause'], meaning='A meaning.', advice='', more=0,
                         sentences=[row['sentence']], evidence=[dict(kind='seen', frames=[1, 2])])
            told = dict(schemaVersion=1, name=row['name'], verdict=row['verdict'], fault=claim, also=[], steps=[], reads=[], incomplete=[])
            session.execute(
                'INSERT INTO runs (content, station, name, started, day, duration, verdict, unit_mac, fault_owner, fault_cause, '
                'fault_sentence, failed_step, frames_lost, blocks_repeated, incomplete, record_host, record, explained_by, '
                'collected, json) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, 0, ?, ?, ?, ?, ?)',
                (row['content'], row['station'], row['name'], started, started[:10], row['duration'], row['verdict'], row['mac'],
                 row['owner'], row['cause'], row['sentence'], row['step'], row['lost'], row['repeated'], 'elsewhere',
                 '/nowhere/' + row['name'], 'made', started, json.dumps(told)))


def database_of(program, folder, records):
    """A database of these records {name: bytes}, collected by the program."""
    for name, contents in records.items():
        with open('%s/%s.pcapng' % (folder, name), 'wb') as file:
            file.write(contents)
    database = folder + '/runs.db'
    subprocess.run([program, 'collect', '--into', database, folder], check=True, capture_output=True)
    return database
