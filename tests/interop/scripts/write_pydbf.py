#!/usr/bin/python3
"""Writes a table with python3-dbf and prints what it wrote as JSON (the form
read_dbfread.py describes, records in file order).

usage: write_pydbf.py TABLE KIND   (KIND: db3, clp or fp)
"""
import datetime
import json
import sys

import dbf

ROWS = [
    ('Alpha', 12.5, 3, datetime.date(2020, 1, 2), True, 1.125, 'first memo'),
    ('Beta \xe9', -0.25, -7, None, False, -3.5, ''),
    ('', None, None, None, None, None, None),
    ('Gamma', 99999.99, 0, datetime.date(1999, 12, 31), True, 0.0, 'line1\r\nline2'),
    ('Delta', 0.0, 42, datetime.date(2000, 2, 29), False, 12345.678, 'x' * 600),
]
DELETED = {2, 4}


def main():
    path, kind = sys.argv[1], sys.argv[2]
    layout = 'NAME C(12); AMOUNT N(10,2); QTY N(6,0); DAY D; OK L'
    names = ['NAME', 'AMOUNT', 'QTY', 'DAY', 'OK']
    types = ['C', 'N', 'N', 'D', 'L']
    lengths = [12, 10, 6, 8, 1]
    decimals = [0, 2, 0, 0, 0]
    columns = [0, 1, 2, 3, 4]
    if kind == 'fp':
        layout += '; RATE F(10,3)'
        names.append('RATE'); types.append('F'); lengths.append(10); decimals.append(3)
        columns.append(5)
    layout += '; NOTE M'
    names.append('NOTE'); types.append('M'); lengths.append(10); decimals.append(0)
    columns.append(6)
    table = dbf.Table(path, layout, dbf_type=kind, codepage='cp1252')
    table.open(dbf.READ_WRITE)
    records = []
    for i, row in enumerate(ROWS):
        values = tuple(row[c] for c in columns)
        table.append(values)
        recno = i + 1
        if recno in DELETED:
            dbf.delete(table[i])
        out = {}
        for name, ftype, value in zip(names, types, values):
            if value is None or value == '':
                out[name] = '' if ftype == 'C' else None
            elif ftype == 'D':
                out[name] = value.strftime('%Y%m%d')
            else:
                out[name] = value
        records.append({'recno': recno, 'deleted': recno in DELETED, 'values': out})
    table.close()
    fields = [{'name': n, 'type': t, 'length': l, 'decimals': d}
              for n, t, l, d in zip(names, types, lengths, decimals)]
    json.dump({'writer': 'python3-dbf', 'kind': kind, 'fields': fields, 'records': records},
              sys.stdout)


if __name__ == '__main__':
    main()
