#!/usr/bin/python3
"""Reads a .DBF table with python3-dbf and prints it as one JSON object in
the form read_dbfread.py describes, records in file order with numbers."""
import datetime
import json
import sys

import dbf


def norm(ftype, value):
    if value is None:
        return None
    if ftype == 'C':
        return value.rstrip(' \0')
    if ftype == 'D':
        if isinstance(value, (datetime.date, dbf.Date)):
            return value.strftime('%Y%m%d') if value else None
        return None
    if ftype == 'M':
        value = value.rstrip('\x1a\0')
        return value or None
    if ftype == 'L':
        if value is True or value is False:
            return value
        return None if value is None else bool(value)
    if ftype in ('N', 'F'):
        return value
    return str(value)


def main():
    table = dbf.Table(sys.argv[1], codepage='cp1252')
    table.open(dbf.READ_ONLY)
    try:
        fields = []
        types = {}
        for name in table.field_names:
            info = table.field_info(name)
            ftype = chr(info[0])
            types[name] = ftype
            fields.append({'name': name.upper(), 'type': ftype, 'length': info[1],
                           'decimals': info[2]})
        records = []
        for i, rec in enumerate(table):
            records.append({'recno': i + 1, 'deleted': bool(dbf.is_deleted(rec)),
                            'values': {n.upper(): norm(types[n], rec[n])
                                       for n in table.field_names}})
    finally:
        table.close()
    json.dump({'reader': 'python3-dbf', 'physical_order': True, 'fields': fields,
               'records': records}, sys.stdout)


if __name__ == '__main__':
    main()
