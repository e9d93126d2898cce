#!/usr/bin/python3
"""Writes a table with python3-dbf and prints what it wrote as JSON.

usage: write_pydbf.py TABLE KIND [memos]   (KIND: db3, clp or fp)
Without "memos": the rows below, in the form read_dbfread.py describes
(records in file order).  With "memos": NAME C(10) and NOTE M holding the
memo sizes the cross-checks use, 1 byte up to 20 KB, printed as
{"table", "memo", "texts": [text or null, one per record]}.
"""
import datetime
import json
import sys

import dbf

FIELDS = [('NAME', 'C', 12, 0), ('AMOUNT', 'N', 10, 2), ('QTY', 'N', 6, 0), ('DAY', 'D', 8, 0),
          ('OK', 'L', 1, 0), ('RATE', 'F', 10, 3), ('NOTE', 'M', 10, 0)]
ROWS = [
    ('Alpha', 12.5, 3, datetime.date(2020, 1, 2), True, 1.125, 'first memo'),
    ('Beta \xe9', -0.25, -7, None, False, -3.5, ''),
    ('', None, None, None, None, None, None),
    ('Gamma', 99999.99, 0, datetime.date(1999, 12, 31), True, 0.0, 'line1\r\nline2'),
    ('Delta', 0.0, 42, datetime.date(2000, 2, 29), False, 12345.678, 'x' * 600),
]
DELETED = {2, 4}
SIZES = [1, 100, 0, 480, 510, 511, 512, 600, 0, 1000, 1022, 5000, 20000]


def text_of(n, seed):
    words = 'alpha beta gamma delta epsilon zeta eta theta iota kappa'.split()
    out = []
    i = seed
    while sum(len(w) for w in out) < n:
        out.append(words[i % len(words)] + (' ' if i % 9 else '\r\n'))
        i += 7
    s = ''.join(out)[:n]
    return s[:-1] + '.' if n > 0 else s


def write_memos(path, kind):
    table = dbf.Table(path, 'NAME C(10); NOTE M', dbf_type=kind, codepage='cp1252')
    table.open(dbf.READ_WRITE)
    texts = [text_of(n, i) for i, n in enumerate(SIZES)]
    for i, text in enumerate(texts):
        table.append(('rec%d' % (i + 1), text))
    table.close()
    memo = path[:-4] + ('.fpt' if kind == 'fp' else '.dbt')
    return {'table': path, 'memo': memo, 'texts': [t or None for t in texts]}


def write_rows(path, kind):
    columns = [c for c in range(len(FIELDS)) if kind == 'fp' or FIELDS[c][0] != 'RATE']
    fields = [FIELDS[c] for c in columns]
    layout = '; '.join('%s %s' % (n, t) + ('(%d,%d)' % (l, d) if t in 'CNF' else '')
                       for n, t, l, d in fields).replace('C(12,0)', 'C(12)')
    table = dbf.Table(path, layout, dbf_type=kind, codepage='cp1252')
    table.open(dbf.READ_WRITE)
    records = []
    for i, row in enumerate(ROWS):
        values = tuple(row[c] for c in columns)
        table.append(values)
        if i + 1 in DELETED:
            dbf.delete(table[i])
        out = {}
        for (name, ftype, _, _), value in zip(fields, values):
            if value is None or value == '':
                out[name] = '' if ftype == 'C' else None
            else:
                out[name] = value.strftime('%Y%m%d') if ftype == 'D' else value
        records.append({'recno': i + 1, 'deleted': i + 1 in DELETED, 'values': out})
    table.close()
    return {'writer': 'python3-dbf', 'kind': kind, 'records': records,
            'fields': [{'name': n, 'type': t, 'length': l, 'decimals': d} for n, t, l, d in fields]}


if __name__ == '__main__':
    path, kind = sys.argv[1], sys.argv[2]
    json.dump(write_memos(path, kind) if sys.argv[3:] == ['memos'] else write_rows(path, kind),
              sys.stdout)
