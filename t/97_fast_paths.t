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

# ---- uint64 decimal text of twenty digits --------------------------------------

# Read without strtoull, with its result: the value, or 2**64-1 past the range;
# the expected values are worked out with Math::BigInt.
{
    require Math::BigInt;
    my $max = Math::BigInt->new(2)->bpow(64)->bsub(1);
    my @texts = ('10000000000000000000', '18446744073709551557', '18446744073709551614', '18446744073709551615',
                 '18446744073709551616', '18446744073709551619', '18446744073709551620', '18446744073709551700',
                 '19999999999999999999', '99999999999999999999', '1844674407370955161x', '184467440737095516150');
    for my $text (@texts) {
        my ($digits) = $text =~ /^(\d+)/;
        my $n = Math::BigInt->new($digits);
        my $want = ($n->bcmp($max) > 0 ? $max : $n)->bstr;
        my $r = $CLASS->new({ session_id => $text });
        is $r->session_id, $want, "uint64 from \"$text\" through new(\\%h)";
        $r->set_session_id($text);
        is $r->session_id, $want, '... and through the setter';
    }
}

# ---- uint64 values as decimal text, on the way out ---------------------------------

# Every number of digits, the values next to each power of ten and to the
# eight-digit steps of the writer, and random values of every length: the
# getter, to_hashref and the codec give back the canonical text that went in.
{
    my @texts = ('0', '18446744073709551615', '9223372036854775808');
    for my $k (1 .. 19) {
        push @texts, '9' x $k, '1' . ('0' x $k), '1' . ('0' x ($k - 1)) . '1';
    }
    my $seed = 12345;
    my $next = sub { $seed = ($seed * 1103515245 + 12345) % 2147483648; $seed };
    for my $len (1 .. 19) {
        for (1 .. 30) {
            my $t = 1 + $next->() % 9;
            $t .= $next->() % 10 for 2 .. $len;
            push @texts, $t;
        }
    }
    # Twenty digits, below 18 * 10**18 and so below 2**64.
    push @texts, '1' . ($next->() % 8) . join('', map { $next->() % 10 } 1 .. 18) for 1 .. 30;
    my @wrong;
    for my $text (@texts) {
        my $r = $CLASS->new({ device_id => $text });
        my @got = ($r->device_id, $r->to_hashref->{device_id},
                   quillon_event_log::Codec::decode_event($r->pack)->{device_id});
        push @wrong, "$text: @got" if grep { $_ ne $text } @got;
    }
    is scalar(@texts), 660, '660 uint64 texts';
    is_deeply \@wrong, [], '... each given back as it went in, by the getter, to_hashref and the codec';
}

# ---- new(\%h): the hash read by its own entries ----------------------------------

# Conversions with and without the fast paths give what the setters give.
{
    my $r = $CLASS->new({ device_id => '0123', session_id => '00', support_id => '18446744073709551616',
                          previous_support_id => '1234567890123456789', src_port => -1, dest_port => 4294967297,
                          slot_number => '42', request_time => 7.9, mobile_is_app => 2, is_https_request => '0' });
    is $r->device_id, '83', 'uint64 text with a leading zero is octal';
    is $r->session_id, '0', 'uint64 "00" is 0';
    is $r->support_id, '18446744073709551615', 'uint64 text past the range saturates';
    is $r->previous_support_id, '1234567890123456789', 'uint64 plain decimal of 19 digits';
    is $r->src_port, 4294967295, 'uint32 from the integer -1 wraps';
    is $r->dest_port, 1, 'uint32 from an integer past 2**32 wraps';
    is $r->slot_number, 42, 'uint32 from decimal text';
    is $r->request_time, 7, 'uint32 from a fraction';
    is $r->mobile_is_app, 1, 'a flag from 2';
    ok $r->has_is_https_request && !$r->is_https_request, 'a flag from "0"';
}

# Perl code run while the fields are set (here a __WARN__ handler) sees and
# changes the hash: the fields after it are looked up again, in field order.
{
    my %h = (bot_name => 'b', src_port => 'not a number', host => 'h', reason => 'r', enforced_by => 'e');
    my @seen;
    my $r = do {
        use warnings;
        local $SIG{__WARN__} = sub { push @seen, $_[0]; delete $h{host}; $h{request_status} = 'added' };
        $CLASS->new(\%h);
    };
    is scalar(@seen), 1, 'one warning for the text that is not a number';
    like $seen[0], qr/^Argument "not a number" isn't numeric/, 'and it is Perl\'s';
    ok !$r->has_host, 'a field deleted by the handler is not set';
    is $r->request_status, 'added', 'a field added by the handler is set';
    is $r->reason, 'r', 'a field before the handler ran is set';
    is $r->enforced_by, 'e', 'a field after it is set';
    is $r->src_port, 0, 'the text that is not a number gives 0';
}

# A tied value: FETCH once, in field order with the others.
{
    package Counting;
    sub TIESCALAR { my ($class, $v, $log) = @_; bless [$v, $log], $class }
    sub FETCH { push @{ $_[0][1] }, $_[0][0]; $_[0][0] }
    package main;
    my @log;
    my %h = (host => 'h', bot_name => 'b', enforced_by => 'e');
    tie $h{$_->[0]}, 'Counting', $_->[1], \@log for [request_uri => 'v_request_uri'], [src_port => 7],
        [enforced_by => 'v_enforced_by'];
    my $r = $CLASS->new(\%h);
    is_deeply \@log, [qw(v_request_uri 7 v_enforced_by)], 'tied values are fetched once each, in field order';
    is $r->request_uri, 'v_request_uri', 'a tied string value';
    is $r->host, 'h', 'a plain value after the tied ones';
}

# Keys that are not fields, and keys that only look like them.
{
    my %h = (bot_name => 'b', bot_nam => 'x', bot_namex => 'y', BOT_NAME => 'z', "bot_name\0" => 'w', other => 1);
    my $r = $CLASS->new(\%h);
    is_deeply $r->to_hashref, { bot_name => 'b' }, 'only the field names count';
    my $wide = $CLASS->new({ "bot_name" => 'b', "host\x{100}" => 'x' });
    is_deeply $wide->to_hashref, { bot_name => 'b' }, 'a wide key is no field';
    my @many = map { ("k$_" => $_) } 1 .. 500;
    is_deeply $CLASS->new({ @many, host => 'h' })->to_hashref, { host => 'h' }, 'a field among 500 other keys';
}

done_testing;
