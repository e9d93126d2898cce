#!/usr/bin/perl
# Writes a table with Perl XBase and prints what it wrote as JSON.
# usage: write_xbase.pl TABLE VERSION [memos]
#   VERSION: 3 (dBASE III), 4 (dBASE IV), 245 or fpt (FoxPro, .FPT memo)
# Without "memos": the rows below, in the form read_dbfread.py describes
# (records in file order).  With "memos": NAME C(10) and NOTE M holding the
# memo sizes the cross-checks use, printed as {"table", "memo", "texts"}.
use strict;
use warnings;
use XBase;
use JSON::PP;

my ($path, $version, $mode) = @ARGV;
die "usage: write_xbase.pl TABLE VERSION [memos]\n" unless defined $version;
my $fox = $version eq '245' || $version eq 'fpt';
(my $memo = $path) =~ s/\.dbf$/$fox ? '.fpt' : '.dbt'/ie;
my $json = JSON::PP->new->ascii->canonical;

sub create {
  my ($names, $types, $lengths, $decimals, %more) = @_;
  my %options = (name => $path, field_names => $names, field_types => $types,
                 field_lengths => $lengths, field_decimals => $decimals, %more);
  $options{memofile} = $memo if $fox;
  return XBase->create(%options) || die XBase->errstr;
}

if (defined $mode && $mode eq 'memos') {
  my @sizes = (1, 100, 0, 480, 510, 511, 512, 600, 0, 1000, 1022, 5000, 20000);
  my @words = qw(alpha beta gamma delta epsilon zeta eta theta iota kappa);
  my $table = create(['NAME', 'NOTE'], ['C', 'M'], [10, 10], [0, 0],
                     version => $version eq 'fpt' ? 5 : $version);
  my @texts;
  for my $i (0 .. $#sizes) {
    my ($s, $w) = ('', $i);
    while (length($s) < $sizes[$i]) { $s .= $words[$w % @words] . ($w % 9 ? ' ' : "\r\n"); $w += 7; }
    my $text = $sizes[$i] ? substr($s, 0, $sizes[$i] - 1) . '.' : undef;
    $table->set_record($i, 'rec' . ($i + 1), $text) or die $table->errstr;
    push @texts, $text;
  }
  $table->close;
  print $json->encode({ table => $path, memo => $memo, texts => \@texts });
  exit 0;
}

my @names = qw(NAME AMOUNT QTY DAY OK NOTE);
my @types = qw(C N N D L M);
my @lengths = (12, 10, 6, 8, 1, 10);
my @decimals = (0, 2, 0, 0, 0, 0);
my $table = create(\@names, \@types, \@lengths, \@decimals);
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
    if ($types[$c] eq 'C') { $v //= ''; }
    elsif ($types[$c] eq 'L') { $v = defined $v ? ($v ? JSON::PP::true : JSON::PP::false) : undef; }
    elsif ($types[$c] eq 'N') { $v += 0 if defined $v; }
    $values{$names[$c]} = $v;
  }
  push @records, { recno => $i + 1, deleted => ($deleted{$i + 1} ? JSON::PP::true : JSON::PP::false),
                   values => \%values };
}
$table->close;
my @fields = map { { name => $names[$_], type => $types[$_], length => $lengths[$_],
                     decimals => $decimals[$_] } } 0 .. $#names;
print $json->encode({ writer => 'perl-xbase', version => $version + 0, fields => \@fields,
                      records => \@records });
