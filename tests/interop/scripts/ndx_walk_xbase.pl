#!/usr/bin/perl
# Walks an .NDX index with Perl XBase (XBase::Index) and prints one line per
# key in the order it reads them: the record number, a tab and the key (the
# bytes in hexadecimal for a character index, else the number it decodes).
# Usage: ndx_walk_xbase.pl INDEX C|N
use strict;
use warnings;
use XBase::Index;

my ($file, $type) = @ARGV;
my $index = XBase::Index->new($file, 'type' => $type)
  or die XBase::Index->errstr;
$index->prepare_select or die $index->errstr;
while (my ($key, $record) = $index->fetch) {
  if ($type eq 'C') {
    print $record, "\t", unpack('H*', $key), "\n";
  } else {
    printf "%d\t%.17g\n", $record, $key;
  }
}
