#!/usr/bin/perl
# Writes a table with Perl XBase and prints what it wrote as JSON (the form
# read_dbfread.py describes, records in file order).
# usage: write_xbase.pl TABLE VERSION   (VERSION: 3 for dBASE III, 245 for FoxPro)
use strict;
use warnings;
use XBase;
use JSON::PP;

my ($path, $version) = @ARGV;
die "usage: write_xbase.pl TABLE VERSION\n" unless defined $version;
my @names = qw(NAME AMOUNT QTY DAY OK NOTE);
my @types = qw(C N N D L M);
my @lengths = (12, 10, 6, 8, 1, 10);
my @decimals = (0, 2, 0, 0, 0, 0);
my %options = (name => $path, field_names => \@names, field_types => \@types,
               field_lengths => \@lengths, field_decimals => \@decimals);
if ($version == 245) {
  (my $memo = $path) =~ s/\.dbf$/.fpt/i;
  $options{memofile} = $memo;
}
my $table = XBase->create(%options) or die XBase->errstr;
my @rows = (
  ['Alpha', 12.5, 3, '20200102', 1, 'first memo'],
  ["Beta \xe9", -0.25, -7, undef, 0, undef],
  [undef, undef, undef, undef, undef, undef],
  ['Gamma', 99999.99, 0, '19991231', 1, "line1\r\nline2"],
  ['Delta', 0, 42, '20000229', 0, 'x' x 600],
);
my %deleted = (2 => 1, 4 => 1);
my @records;
for my $i (0 .. $#rows) {
  $table->set_record($i, @{ $rows[$i] }) or die $table->errstr;
  $table->delete_record($i) if $deleted{$i + 1};
  my %values;
  for my $c (0 .. $#names) {
    my $v = $rows[$i][$c];
    if ($types[$c] eq 'C') { $values{$names[$c]} = defined $v ? $v : ''; }
    elsif ($types[$c] eq 'L') { $values{$names[$c]} = defined $v ? ($v ? JSON::PP::true : JSON::PP::false) : undef; }
    elsif ($types[$c] eq 'N') { $values{$names[$c]} = defined $v ? $v + 0 : undef; }
    else { $values{$names[$c]} = $v; }
  }
  push @records, { recno => $i + 1, deleted => ($deleted{$i + 1} ? JSON::PP::true : JSON::PP::false),
                   values => \%values };
}
$table->close;
my @fields = map { { name => $names[$_], type => $types[$_], length => $lengths[$_],
                     decimals => $decimals[$_] } } 0 .. $#names;
print JSON::PP->new->ascii->canonical->encode({ writer => 'perl-xbase', version => $version + 0,
  fields => \@fields, records => \@records });
