#!/usr/bin/perl
# decode against the record class's own wire reader on seeded mutations of
# random records (QEL_CODEC_FUZZ of them, default 3000, seed QEL_CODEC_SEED):
# both accept or both refuse the same inputs, and what both accept reads the
# same, known fields and unknown ones.  The intended differences: the class
# keeps field number 0 as an unknown field, and reads a tag of more than 5
# bytes as its low 32 bits; the codec refuses both.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(hexs hash_text);
use QelRandom;
use quillon_event_log::Codec;

my $CLASS = 'quillon_event_log::QuillonEventLog';
my $N    = $ENV{QEL_CODEC_FUZZ} // 3000;
my $SEED = $ENV{QEL_CODEC_SEED} // 20261123;
die "QEL_CODEC_FUZZ must be a whole number of at least 1\n" unless $N =~ /^[0-9]+\z/ && $N >= 1;
note "seed $SEED, $N inputs: QEL_CODEC_SEED=$SEED QEL_CODEC_FUZZ=$N prove -b $0 repeats this run";

# One mutation of $bytes: a bit flipped, a byte changed, put in or taken
# out, or the end cut off; one to three of them.
sub mutate {
    my ($g, $bytes) = @_;
    for (0 .. $g->below(3)) {
        my $len = length $bytes;
        my $at = $len ? $g->below($len) : 0;
        my $kind = $g->below(5);
        if ($kind == 0 && $len) { substr($bytes, $at, 1) = chr(ord(substr $bytes, $at, 1) ^ (1 << $g->below(8))) }
        elsif ($kind == 1 && $len) { substr($bytes, $at, 1) = chr $g->below(256) }
        elsif ($kind == 2) { substr($bytes, $at, 0) = chr $g->pick(0x00, 0x0b, 0x0c, 0x33, 0x34, 0x80, 0xff, $g->below(256)) }
        elsif ($kind == 3 && $len) { substr($bytes, $at, 1) = '' }
        elsif ($len) { $bytes = substr $bytes, 0, $at }
    }
    return $bytes;
}

# The known fields of a hash form (no `_unknown` at either level).
sub known_of {
    my $h = shift;
    my %k = %$h;
    delete $k{_unknown};
    for (grep { ref $k{$_} eq 'HASH' } keys %k) {
        $k{$_} = { %{ $k{$_} } };
        delete $k{$_}{_unknown};
    }
    return \%k;
}

open my $saved_stderr, '>&', \*STDERR or die "dup STDERR: $!";
open STDERR, '>', '/dev/null' or die "reopen STDERR: $!";    # the runtime's UTF-8 reports
my (%count, %first);
sub differ { my ($what, $i, $input) = @_; $count{$what}++; $first{$what} //= "input $i: " . hexs(substr $input, 0, 64) }
for my $i (0 .. $N - 1) {
    my $g = QelRandom->new($SEED, $i);
    my $packed = encode_event($g->record);
    my $input = mutate($g, $g->with_unknowns($packed)->{wire});
    my $r = $CLASS->new;
    my $clean = $r->unpack($input);
    my $h = eval { decode_event($input) };
    my $err = $@;
    if (!$h) {
        $count{refused}++;
        next if !$clean;
        next if $err =~ /: (?:field number 0|tag longer than 5 bytes) at /;    # on purpose
        differ('refused what the class reads', $i, $input);
        next;
    }
    $count{accepted}++;
    unless ($clean) {
        differ('read what the class refuses', $i, $input);
        next;
    }
    differ('known fields differ from to_hashref', $i, $input)
        unless hash_text(known_of($h)) eq hash_text($r->to_hashref);
    # The class writes unknown fields after the known ones (and varints in
    # their shortest form): so do the codec's bytes once every unknown run is
    # moved to the end of its level and the class has read them.
    my $re = encode_event($h);
    my %moved = %$h;
    $moved{_unknown} = [ map { s/^\d+:/999999:/r } @{ $h->{_unknown} } ] if $h->{_unknown};
    for my $f (grep { ref $moved{$_} eq 'HASH' && $moved{$_}{_unknown} } keys %moved) {
        $moved{$f} = { %{ $moved{$f} }, _unknown => [ map { s/^\d+:/99:/r } @{ $moved{$f}{_unknown} } ] };
    }
    my $pack = $r->length ? $r->pack : '';
    my $via = $CLASS->new(encode_event(\%moved));
    differ('unknown fields differ from pack', $i, $input) unless ($via->length ? $via->pack : '') eq $pack;
    # What encode writes is canonical: it comes back byte for byte.
    differ('the encoding is not canonical', $i, $input) unless encode_event(decode_event($re)) eq $re;
}
open STDERR, '>&', $saved_stderr or die "restore STDERR: $!";

note "accepted $count{accepted}, refused $count{refused}";
cmp_ok $count{accepted} // 0, '>', $N / 10, 'many inputs are read';
cmp_ok $count{refused} // 0, '>', $N / 10, 'many are refused';
for my $what ('refused what the class reads', 'read what the class refuses', 'known fields differ from to_hashref',
              'unknown fields differ from pack', 'the encoding is not canonical') {
    is $count{$what} // 0, 0, $what . ($count{$what} ? " (first: $first{$what})" : '');
}

done_testing;
