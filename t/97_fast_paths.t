#!/usr/bin/perl
# The record class's fast paths against what they stand in for: pack's own
# writer gives the bytes of the codec (a separate encoder) for records of every
# family and size, and both pack and new($bytes) report a string that is not
# UTF-8 exactly once, with its field's name, wherever the bad byte sits (the
# ASCII test works in blocks of 64, 8 and 4 bytes), and never a valid one.
use strict;
use warnings;
use Test::More;
use quillon_event_log::QuillonEventLog;
use quillon_event_log::Codec qw(encode_event);

my $CLASS = 'quillon_event_log::QuillonEventLog';
quillon_event_log::RuntimeLog::mode('warn');

sub utf8_line {
    my ($field, $when) = @_;
    return "String field 'quillon_event_log.QuillonEventLog.$field' contains invalid UTF-8 data "
         . "when $when a protocol buffer. Use the 'bytes' type if you intend to send raw bytes.";
}

# The runtime lines raised while $code runs, without their " at FILE line N.".
sub lines_of {
    my ($code) = @_;
    my @lines;
    local $SIG{__WARN__} = sub { my $w = shift; $w =~ s/ at \S+ line \d+\.\n\z//; push @lines, $w };
    $code->();
    return \@lines;
}

# ---- the UTF-8 report at every position -------------------------------------

my ($checked, $wrong) = (0, 0);
for my $len (1 .. 140) {
    for my $pos (0 .. $len - 1) {
        my $bad = 'a' x $len;
        substr($bad, $pos, 1) = "\xff";
        my $valid = 'a' x $len;
        substr($valid, $pos, 1) = "\xc3\xa9";
        for my $case ([$bad, 1], [$valid, 0]) {
            my ($text, $reported) = @$case;
            my $bytes;
            my $packed = lines_of(sub { $bytes = $CLASS->new({ request_uri => $text })->pack });
            my $parsed = lines_of(sub { $CLASS->new($bytes) });
            my @want_pack = $reported ? (utf8_line('request_uri', 'serializing')) : ();
            my @want_parse = $reported ? (utf8_line('request_uri', 'parsing')) : ();
            ++$checked;
            unless (is_deeply_quiet($packed, \@want_pack) && is_deeply_quiet($parsed, \@want_parse)
                    && $bytes eq quiet_encode({ request_uri => $text })) {
                ++$wrong;
                diag "length $len, byte at $pos, " . ($reported ? 'invalid' : 'valid') . ": "
                    . "pack [@$packed], parse [@$parsed]" if $wrong <= 5;
            }
        }
    }
}
is $wrong, 0, "$checked strings of 1 to 140 bytes with one non-ASCII byte or character anywhere: "
            . 'reported once when invalid, never when valid, bytes as the codec writes them';

# The codec's bytes for a hash; its own report of bad strings is not wanted here.
sub quiet_encode {
    my ($h) = @_;
    local $SIG{__WARN__} = sub { };
    return encode_event($h);
}

sub is_deeply_quiet {
    my ($got, $want) = @_;
    return @$got == @$want && !grep { $got->[$_] ne $want->[$_] } 0 .. $#$want;
}

is_deeply lines_of(sub { $CLASS->new({ request_uri => '' })->pack }), [], 'an empty string reports nothing';

# Several bad strings: one line each, in field-number order, list elements
# in list order, on both paths.
{
    my %h = (enforced_by => "z\xfe", bot_name => "\xc0", anomalies => ['ok', "\xe2\x82", 'fine', "\x80"],
             request_uri => 'x' x 100 . "\xff", host => "h\xc3\xa9llo");
    my @order = qw(bot_name request_uri anomalies anomalies enforced_by);
    my $bytes;
    is_deeply lines_of(sub { $bytes = $CLASS->new(\%h)->pack }), [ map { utf8_line($_, 'serializing') } @order ],
        'pack: one line per bad string, in field order';
    is_deeply lines_of(sub { $CLASS->new($bytes) }), [ map { utf8_line($_, 'parsing') } @order ],
        'new($bytes): the same lines when parsing';
    is $bytes, quiet_encode(\%h), 'and the bytes are the codec\'s';
}

# ---- pack's bytes against the codec's -----------------------------------------

my %types = %{ quillon_event_log::Codec::field_types() };
my @names = $CLASS->fields;
my @uint32 = (0, 1, 127, 128, 16383, 16384, 2097151, 2097152, 268435455, 268435456, 4294967295);
my @uint64 = ('0', '1', '127', '128', '4294967296', '9223372036854775807', '9223372036854775808',
              '18446744073709551615');
my @strings = ('', 'a', 'abc', 'x' x 127, 'y' x 128, 'z' x 16383, 'w' x 16384, "caf\xc3\xa9");
my $seed = 7;
sub rnd { my ($n) = @_; $seed = ($seed * 1103515245 + 12345) % 2147483648; return ($seed >> 8) % $n }
sub value_of {
    my ($type) = @_;
    return $strings[rnd(scalar @strings)] if $type eq 'string';
    return $uint32[rnd(scalar @uint32)] if $type eq 'uint32';
    return $uint64[rnd(scalar @uint64)] if $type eq 'uint64';
    return rnd(2) if $type eq 'bool';
    return [ map { $strings[rnd(scalar @strings)] } 1 .. rnd(4) ] if $type eq 'string list';
    return { map { rnd(2) ? ($_ => $uint32[rnd(scalar @uint32)]) : () } qw(ip0 ip1 ip2 ip3 rtdom_id) };
}
my ($records, $differ) = (0, 0);
for my $round (1 .. 400) {
    my %h;
    my $share = 1 + rnd(4);
    for my $name (@names) {
        $h{$name} = value_of($types{$name}) if rnd($share) == 0;
    }
    my $lines = lines_of(sub {
        my $packed = $CLASS->new(\%h)->pack;
        ++$records;
        my $want = %h ? encode_event(\%h) : "\0" x 16;  # an empty record packs to 16 zero bytes
        ++$differ, diag "record $round differs" if $packed ne $want;
    });
    ++$differ, diag "record $round: lines [@$lines]" if @$lines;
}
is $differ, 0, "$records records of every family and size: pack writes the codec's bytes";

done_testing;
