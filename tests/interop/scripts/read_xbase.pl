#!/usr/bin/perl
# Reads a .DBF table with Perl XBase and prints it as one JSON object in the
# form read_dbfread.py describes, records in file order with numbers.
use strict;
use warnings;
use XBase;
use JSON::PP;

my $path = shift or die "usage: read_xbase.pl TABLE\n";
my $table = XBase->new(name => $path) or die XBase->errstr;
my @names = $table->field_names;
my @types = $table->field_types;
my @lengths = $table->field_lengths;
my @decimals = $table->field_decimals;
my @fields;
for my $i (0 .. $#names) {
  push @fields, { name => $names[$i], type => $types[$i], length => $lengths[$i] + 0,
                  decimals => ($decimals[$i] // 0) + 0 };
}

sub norm {
  my ($type, $v) = @_;
  return undef unless defined $v;
  if ($type eq 'C') { $v =~ s/[ \0]+$//; return $v; }
  if ($type eq 'D') { return undef if $v eq '' || $v == 0; return sprintf('%08d', $v); }
  if ($type eq 'L') { return $v ? JSON::PP::true : JSON::PP::false; }
  if ($type eq 'M') { $v =~ s/[\x1a\0]+$//; return $v eq '' ? undef : $v; }
  if ($type eq 'N' || $type eq 'F') { return $v + 0; }
  return "$v";
}

my @records;
for my $n (0 .. $table->last_record) {
  my ($deleted, @values) = $table->get_record($n);
  die XBase->errstr unless defined $deleted;
  my %values;
  for my $i (0 .. $#names) { $values{$names[$i]} = norm($types[$i], $values[$i]); }
  push @records, { recno => $n + 1, deleted => ($deleted ? JSON::PP::true : JSON::PP::false),
                   values => \%values };
}
$table->close;
print JSON::PP->new->ascii->canonical->encode({ reader => 'perl-xbase', physical_order => JSON::PP::true,
  fields => \@fields, records => \@records });
