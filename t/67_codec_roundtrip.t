#!/usr/bin/perl
# Round trips of seeded random records (t/lib/QelRandom.pm; QEL_CODEC_RECORDS
# of them, default 600, seed QEL_CODEC_SEED), some with unknown fields put in
# at the wire level: the codec against the record class, against itself
# under every option, against protoc, and its characters against a
# regular-expression oracle of well-formed UTF-8.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(:all);
use QelRandom;
use quillon_event_log::Codec;

my $CLASS = 'quillon_event_log::QuillonEventLog';
my $CODEC = 'quillon_event_log::Codec';
my $N    = $ENV{QEL_CODEC_RECORDS} // 600;
my $SEED = $ENV{QEL_CODEC_SEED} // 20261123;
die "QEL_CODEC_RECORDS must be a whole number of at least 1\n" unless $N =~ /^[0-9]+\z/ && $N >= 1;
note "seed $SEED, $N records: QEL_CODEC_SEED=$SEED QEL_CODEC_RECORDS=$N prove -b $0 repeats this run";

my %codec = (
    plain => $CODEC->new,
    chars => $CODEC->new(characters => 1),
    text  => $CODEC->new(addresses => 'text'),
    all   => $CODEC->new(characters => 1, addresses => 'text'),
    drop  => $CODEC->new(unknown_fields => 'drop'),
);

# The characters that decode with characters must give for bytes: each
# well-formed UTF-8 sequence its character, each other byte U+DC00 + byte.
my $UTF8 = qr/[\x00-\x7f]|[\xc2-\xdf][\x80-\xbf]|\xe0[\xa0-\xbf][\x80-\xbf]|[\xe1-\xec\xee\xef][\x80-\xbf]{2}
             |\xed[\x80-\x9f][\x80-\xbf]|\xf0[\x90-\xbf][\x80-\xbf]{2}|[\xf1-\xf3][\x80-\xbf]{3}|\xf4[\x80-\x8f][\x80-\xbf]{2}/x;
sub oracle_chars {
    my $bytes = shift;
    my $out = '';
    while (length $bytes) {
        if ($bytes =~ s/\A($UTF8)//) {
            my $seq = $1;
            utf8::decode($seq);
            $out .= $seq;
        }
        else {
            $out .= chr(0xDC00 + ord substr $bytes, 0, 1, '');
        }
    }
    return $out;
}


# Every string of a hash form (lists included), through $f.
sub map_strings {
    my ($h, $f) = @_;
    my %out;
    for my $k (keys %$h) {
        my $kind = family_of($k) // '';
        my $v = $h->{$k};
        $out{$k} = $kind eq 'string' ? $f->($v) : $kind eq 'list' ? [ map { $f->($_) } @$v ] : $v;
    }
    return \%out;
}

my @PROPS = (
    [pack       => 'encode gives the bytes of the class\'s pack'],
    [decode     => 'decode of those bytes gives the hash back'],
    [identity   => 'encode of decode gives canonical bytes with unknown fields back, byte for byte'],
    [hidden     => 'decode of bytes with unknown fields is the hash plus _unknown keys only'],
    [drop       => 'with unknown_fields => drop, encode of decode gives the bytes without unknown fields'],
    [chars      => 'with characters, encode of decode gives the bytes back'],
    [oracle     => 'with characters, every string decodes as the oracle says'],
    [text       => 'with addresses => text, encode of decode gives the bytes back'],
    [text_form  => 'with addresses => text, whole addresses without unknown fields are text'],
);
my (%failed, %first);
sub check {
    my ($prop, $ok, $i, $detail) = @_;
    return if $ok;
    $failed{$prop}++;
    $first{$prop} //= "record $i" . (defined $detail ? ": $detail" : '');
}

my (@protoc_in, @protoc_want);
my $with_unknown = 0;
# The runtime logs the invalid UTF-8 of the random strings on standard
# error: noise here (t/66 checks the report), so it goes to /dev/null.
open my $saved_stderr, '>&', \*STDERR or die "dup STDERR: $!";
open STDERR, '>', '/dev/null' or die "reopen STDERR: $!";
for my $i (0 .. $N - 1) {
    my $g = QelRandom->new($SEED, $i);
    my $h = $g->record;
    my $bytes = encode_event($h);
    my $r = $CLASS->new($h);
    my $pack = $r->length ? $r->pack : '';
    my $debug = $r->debug_string;
    check(pack => $bytes eq $pack, $i);
    check(decode => hash_key(dec_with($codec{plain}, $bytes), 1) eq hash_key($h, 1), $i);

    my $u = $g->with_unknowns($bytes);
    my $wire = $u->{wire};
    $with_unknown++ if $u->{unknown};
    my $d = dec_with($codec{plain}, $wire);
    my $re = enc_with($codec{plain}, $d);
    check(identity => defined $re && $re eq $wire, $i);
    my %known = %$d;
    delete $known{_unknown};
    $_ = { %$_ } for grep { ref eq 'HASH' } values %known;
    delete $_->{_unknown} for grep { ref eq 'HASH' } values %known;
    check(hidden => hash_key(\%known, 1) eq hash_key($h, 1), $i);
    check(drop => enc_with($codec{drop}, dec_with($codec{drop}, $wire)) eq $bytes, $i);

    my $c = dec_with($codec{chars}, $wire);
    check(chars => enc_with($codec{chars}, $c) eq $wire, $i);
    my %want_chars = %{ map_strings($h, \&oracle_chars) };
    my %got_chars = %$c;
    delete $got_chars{_unknown};
    $got_chars{$_} = $known{$_} for grep { ref $known{$_} eq 'HASH' } keys %known;
    check(oracle => hash_key(map_strings(\%got_chars, sub { my $s = shift; utf8::upgrade($s); $s }), 1)
                    eq hash_key(map_strings(\%want_chars, sub { my $s = shift; utf8::upgrade($s); $s }), 1), $i);

    my $t = dec_with($codec{all}, $wire);
    check(text => enc_with($codec{all}, $t) eq $wire && enc_with($codec{text}, dec_with($codec{text}, $wire)) eq $wire, $i);
    my $text_ok = 1;
    for my $f (family_fields('address')) {
        next unless exists $d->{$f};
        my $a = $d->{$f};
        my $whole = (5 == grep { exists $a->{$_} } address_fields()) && !exists $a->{_unknown};
        $text_ok &&= $whole ? !ref $t->{$f} && $t->{$f} =~ /^[0-9a-f.:]+(%[1-9][0-9]*)?\z/ : ref $t->{$f} eq 'HASH';
    }
    check(text_form => $text_ok, $i);

    if (@protoc_in < 200) {
        push @protoc_in, $bytes;
        push @protoc_want, $debug;
    }
}
open STDERR, '>&', $saved_stderr or die "restore STDERR: $!";
note "$with_unknown of $N records had unknown fields put in";
cmp_ok $with_unknown, '>', $N / 5, 'unknown fields were put into many records';
for my $p (@PROPS) {
    my ($prop, $text) = @$p;
    is $failed{$prop} // 0, 0, $text . ($failed{$prop} ? " (first: $first{$prop})" : '');
}

SKIP: {
    skip protoc_skip_reason(), 1 if protoc_skip_reason();
    my ($texts, $why) = protoc_decode_batch(\@protoc_in);
    if (!$texts) {
        fail "protoc decodes the codec's bytes: $why";
        last SKIP;
    }
    my $bad = grep { $texts->[$_] ne $protoc_want[$_] } 0 .. $#$texts;
    is $bad, 0, 'protoc decodes the codec\'s bytes of ' . scalar(@$texts) . ' records to the text of debug_string';
}

sub dec_with { my ($c, $b) = @_; $c->decode($b) }
sub enc_with { my ($c, $h) = @_; $c->encode($h) }

done_testing;
