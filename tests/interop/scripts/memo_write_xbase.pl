#!/usr/bin/perl
# Writes a table with a memo field through Perl XBase and prints what it
# wrote as JSON: {"table", "memo", "texts": [text or null, one per record]}.
#
# usage: memo_write_xbase.pl DIR KIND   (KIND: 3 dBASE III .DBT, 4 dBASE IV
# .DBT, fpt FoxPro .FPT)
use strict;
use warnings;
use XBase;
use JSON::PP;

my ($dir, $kind) = @ARGV;
die "usage: memo_write_xbase.pl DIR KIND\n" unless defined $kind;
my @sizes = (1, 100, 0, 480, 510, 511, 512, 600, 0, 1000, 1022, 5000, 20000);
my @words = qw(alpha beta gamma delta epsilon zeta eta theta iota kappa);

sub text_of {
  my ($n, $seed) = @_;
  return '' if $n == 0;
  my $s = '';
  my $i = $seed;
  while (length($s) < $n) {
    $s .= $words[$i % @words] . ($i % 9 ? ' ' : "\r\n");
    $i += 7;
  }
  $s = substr($s, 0, $n - 1) . '.';
  return $s;
}

my $path = "$dir/pl_$kind.dbf";
my $memo = $kind eq 'fpt' ? "$dir/pl_$kind.fpt" : "$dir/pl_$kind.dbt";
my %options = (name => $path, field_names => ['NAME', 'NOTE'], field_types => ['C', 'M'],
               field_lengths => [10, 10], field_decimals => [0, 0]);
if ($kind eq 'fpt') { $options{memofile} = $memo; $options{version} = 5; }
else { $options{version} = $kind; }
my $table = XBase->create(%options) or die XBase->errstr;
my @texts;
for my $i (0 .. $#sizes) {
  my $text = text_of($sizes[$i], $i);
  $table->set_record($i, 'rec' . ($i + 1), $text eq '' ? undef : $text) or die $table->errstr;
  push @texts, $text eq '' ? undef : $text;
}
$table->close;
print JSON::PP->new->ascii->canonical->encode({ table => $path, memo => $memo, texts => \@texts });
