#!/usr/bin/python3
"""Writes a table with a memo field through python3-dbf and prints what it
wrote as JSON: {"table", "memo", "texts": [text or null, one per record]}.

usage: memo_write_pydbf.py DIR KIND   (KIND: db3 for .DBT, fp for .FPT)
The texts are the memo sizes the cross-checks use: 1 byte up to 20 KB.
"""
import json
import os
import sys

import dbf

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


def main():
    directory, kind = sys.argv[1], sys.argv[2]
    path = os.path.join(directory, 'py_%s.dbf' % kind)
    table = dbf.Table(path, 'NAME C(10); NOTE M', dbf_type=kind, codepage='cp1252')
    table.open(dbf.READ_WRITE)
    texts = []
    for i, n in enumerate(SIZES):
        text = text_of(n, i)
        table.append(('rec%d' % (i + 1), text))
        texts.append(text or None)
    table.close()
    memo = path[:-4] + ('.fpt' if kind == 'fp' else '.dbt')
    json.dump({'table': path, 'memo': memo, 'texts': texts}, sys.stdout)


if __name__ == '__main__':
    main()
