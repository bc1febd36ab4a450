#!/usr/bin/perl
# The codec object and its options, and values with magic: tied hashes,
# arrays and scalars are fetched once each, the caller's hash never gains a
# key, and a FETCH that dies leaves nothing behind.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(hexs);
use QelCodec qw(:all);

use quillon_event_log::Codec;

my $CODEC = 'quillon_event_log::Codec';

# ---- the codec object -------------------------------------------------------------

{
    my $c = $CODEC->new;
    isa_ok $c, $CODEC;
    is_deeply [$c->characters, $c->addresses, $c->unknown_fields], [0, 'hash', 'keep'], 'defaults';
    $c = $CODEC->new(characters => 'yes', addresses => 'text', unknown_fields => 'drop');
    is_deeply [$c->characters, $c->addresses, $c->unknown_fields], [1, 'text', 'drop'], 'every option set';
    $c = $CODEC->new(characters => 1, characters => 0, addresses => 'text', addresses => 'hash');
    is_deeply [$c->characters, $c->addresses], [0, 'hash'], 'a later pair wins';
    $c = $CODEC->new(characters => '0', unknown_fields => 'keep');
    is_deeply [$c->characters, $c->unknown_fields], [0, 'keep'], 'Perl truth: "0" is false';
    dies_with { $$c = 7 } 'Modification of a read-only value attempted', 'the options cannot be changed';
    is $c->characters, 0, 'and stay as they were';

    package My::Codec { our @ISA = ('quillon_event_log::Codec') }
    my $sub = My::Codec->new(characters => 1);
    isa_ok $sub, 'My::Codec';
    is $sub->characters, 1, 'a subclass works';
    is hexs($sub->encode({ bot_name => "\x{e9}" })), '0a02c3a9', 'and encodes with its options';
}

dies_with { $CODEC->new('characters') } 'odd number of options';
dies_with { $CODEC->new(characters => 1, 'addresses') } 'odd number of options';
dies_with { $CODEC->new(foo => 1) } 'unknown option "foo" (known options: addresses, characters, unknown_fields)';
dies_with { $CODEC->new(Characters => 1) } 'unknown option "Characters" (known options: addresses, characters, unknown_fields)';
dies_with { $CODEC->new(addresses => 'x') } 'option addresses must be "hash" or "text", not "x"';
dies_with { $CODEC->new(addresses => 'TEXT') } 'option addresses must be "hash" or "text", not "TEXT"';
dies_with { $CODEC->new(addresses => undef) } 'option addresses must be "hash" or "text", not undef';
dies_with { $CODEC->new(unknown_fields => 'x') } 'option unknown_fields must be "keep" or "drop", not "x"';
dies_with { $CODEC->new(unknown_fields => '') } 'option unknown_fields must be "keep" or "drop", not ""';
for my $m (qw(characters addresses unknown_fields)) {
    my $code = quillon_event_log::Codec->can($m);
    dies_with { $code->() } "Usage: quillon_event_log::Codec::$m(self)";
    dies_with { $code->($CODEC->new, 1) } "Usage: quillon_event_log::Codec::$m(self)";
    dies_with { $code->('quillon_event_log::Codec') } 'self is not a quillon_event_log::Codec object', "$m on the class";
    dies_with { $code->(bless \(my $x = 99), 'quillon_event_log::Codec') } 'self is not a quillon_event_log::Codec object',
        "$m on a forged object";
}
dies_with { quillon_event_log::Codec::new() } 'Usage: quillon_event_log::Codec::new(CLASS, ...)';

ok defined &main::encode_event && defined &main::decode_event, 'encode_event and decode_event are exported';

# ---- tied hashes and values ------------------------------------------------------------

package CountingHash {
    require Tie::Hash;
    our @ISA = ('Tie::StdHash');
    our (%fetches, $iterations);
    sub FETCH { $fetches{ $_[1] }++; $_[0]->SUPER::FETCH($_[1]) }
    sub FIRSTKEY { $iterations++; $_[0]->SUPER::FIRSTKEY }
}
package DyingScalar {
    sub TIESCALAR { bless {}, shift }
    sub FETCH { die "fetch died\n" }
}
package CountingArray {
    require Tie::Array;
    our @ISA = ('Tie::StdArray');
    our $fetches = 0;
    sub FETCH { $fetches++; $_[0]->SUPER::FETCH($_[1]) }
}

{
    tie my %h, 'CountingHash';
    %h = (bot_name => 'a', src_port => 5, client_ip => { ip0 => 1 }, anomalies => ['x']);
    local %CountingHash::fetches;
    local $CountingHash::iterations = 0;
    is hexs(encode_event(\%h)), '0a0161' . '22020801' . '980105' . 'ea020178', 'a tied hash';
    is_deeply \%CountingHash::fetches, { bot_name => 1, src_port => 1, client_ip => 1, anomalies => 1 },
        'each present key fetched once';
    is $CountingHash::iterations, 1, 'its keys are listed once, for unknown keys';
    $h{extra} = 1;
    dies_with { encode_event(\%h) } 'unknown field "extra"', 'an unknown key in a tied hash';
    $h{bot_nme} = 1;
    dies_with { encode_event(\%h) } 'unknown field "bot_nme" (did you mean "bot_name"?)', 'the first in sorted order';

    tie my %addr, 'CountingHash';
    %addr = (ip0 => 1, ipp => 2);
    dies_with { encode_event({ client_ip => \%addr }) } 'client_ip: unknown field "ipp" (did you mean "ip0"?)',
        'a tied address hash';
}
{
    tie my $v, 'CountingScalar', 443;
    tie my $s, 'CountingScalar', 'curl';
    tie my $f, 'CountingScalar', 1;
    tie my $w, 'CountingScalar', 7;
    tie my $e, 'CountingScalar', 'elem';
    tie my $u, 'CountingScalar', ['0:3005'];
    is hexs(encode_event({ src_port => $v, bot_name => $s, mobile_is_app => $f, client_ip => { ip0 => $w },
                           anomalies => [$e], _unknown => $u })),
        '3005' . '0a046375726c' . '22020807' . '9801bb03' . 'c80101' . 'ea0204656c656d',
        'tied values of every kind';
    is_deeply [map { tied($_)->{fetches} } $v, $s, $f, $w, $e, $u], [1, 1, 1, 1, 1, 1], 'each fetched once';
    tie my $bad, 'CountingScalar', 'x';
    dies_with { encode_event({ src_port => $bad }) } 'src_port: "x" is not a decimal integer';
    is tied($bad)->{fetches}, 1, 'fetched once on the error path too';
    tie my $undef, 'CountingScalar', undef;
    is hexs(encode_event({ bot_name => $undef })), '', 'a tied undef is an absent field';
    tie my $hash, 'CountingScalar', { ip1 => 2 };
    is hexs(encode_event({ dest_ip => $hash })), '2a021002', 'a tied scalar holding an address hash';
    tie my $bytes, 'CountingScalar', "\x0a\x01a";
    is_deeply decode_event($bytes), { bot_name => 'a' }, 'decode of a tied scalar';
    is tied($bytes)->{fetches}, 1, 'fetched once';
}
{
    tie my @a, 'CountingArray';
    @a = ('a', 'b');
    local $CountingArray::fetches = 0;
    is hexs(encode_event({ anomalies => \@a })), 'ea020161ea020162', 'a tied array';
    is $CountingArray::fetches, 2, 'each element fetched once';
    tie my @u, 'CountingArray';
    @u = ('0:3005');
    is hexs(encode_event({ _unknown => \@u })), '3005', 'a tied _unknown array';
    $#a = 3;
    dies_with { encode_event({ anomalies => \@a }) } 'anomalies[2]: expected a string, got undef', 'a tied array with holes';
}
{
    'port 8080' =~ /(\d+)/;
    is hexs(encode_event({ src_port => $1 })), '9801903f', 'a capture variable';
    'n=curl' =~ /=(\w+)/;
    is hexs(encode_event({ bot_name => $1 })), '0a046375726c', 'a capture variable as a string';
}
{
    my %h = (bot_name => 'a', client_ip => { ip0 => 1 });
    encode_event(\%h);
    $CODEC->new(unknown_fields => 'drop')->encode(\%h);
    $CODEC->new(addresses => 'text')->encode(\%h);
    is_deeply [sort keys %h], [qw(bot_name client_ip)], 'no key is added to the hash';
    is_deeply [sort keys %{ $h{client_ip} }], ['ip0'], 'nor to an address hash';
}
{
    tie my $d, 'DyingScalar';
    my $err = do { local $@; eval { encode_event({ bot_name => 'a', host => $d }) }; $@ };
    is $err, "fetch died\n", 'a FETCH that dies passes its error on';
    $err = do { local $@; eval { encode_event({ anomalies => ['a', $d] }) }; $@ };
    is $err, "fetch died\n", 'in a list too';
    $err = do { local $@; eval { decode_event($d) }; $@ };
    is $err, "fetch died\n", 'and in decode';
}

done_testing;
