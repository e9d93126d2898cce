#!/usr/bin/perl
# Walks an .NTX index with Perl XBase (XBase::Index) and prints one line per
# key in the order it reads them: the record number, a tab and the key bytes
# in hexadecimal.  Usage: ntx_walk_xbase.pl INDEX
use strict;
use warnings;
use XBase::Index;

my $index = XBase::Index->new($ARGV[0], 'type' => 'C')
  or die XBase::Index->errstr;
$index->prepare_select or die $index->errstr;
while (my ($key, $record) = $index->fetch) {
  print $record, "\t", unpack('H*', $key), "\n";
}
