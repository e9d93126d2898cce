#!/usr/bin/python3
"""Reads a .DBF table with python3-dbfread and prints it as one JSON object.

Output: {"reader", "physical_order": false, "fields": [{name, type, length,
decimals}], "records": [{"recno": null, "deleted", "values": {...}}]}.
dbfread yields the active records and then the deleted ones, each group in
file order, without record numbers. Values are normalised the same way by
every checker script: C trailing blanks and NULs removed (bytes as latin-1),
N/F numbers or null, D "YYYYMMDD" or null, L true/false/null, M the memo text
(trailing 0x1A and NUL removed) or null when empty.
"""
import json
import sys

import dbfread


def norm(ftype, value):
    if value is None:
        return None
    if ftype == 'C':
        return value.rstrip(' \0')
    if ftype == 'D':
        return value.strftime('%Y%m%d')
    if ftype == 'M':
        if isinstance(value, bytes):
            value = value.decode('latin-1')
        value = value.rstrip('\x1a\0')
        return value or None
    return value


def main():
    table = dbfread.DBF(sys.argv[1], encoding='latin-1', load=True,
                        ignore_missing_memofile=True, char_decode_errors='strict')
    fields = []
    for f in table.fields:
        length, decimals = f.length, f.decimal_count
        if f.type == 'C':
            # The high byte of a long character field's length sits in the
            # decimal count.
            length, decimals = length + 256 * decimals, 0
        fields.append({'name': f.name, 'type': f.type, 'length': length, 'decimals': decimals})
    types = {f.name: f.type for f in table.fields}
    records = []
    for deleted, group in ((False, table.records), (True, table.deleted)):
        for rec in group:
            records.append({'recno': None, 'deleted': deleted,
                            'values': {k: norm(types[k], v) for k, v in rec.items()}})
    json.dump({'reader': 'dbfread', 'physical_order': False, 'version': table.header.dbversion,
               'fields': fields, 'records': records}, sys.stdout)


if __name__ == '__main__':
    main()
