# No Perl value leaks from any function of quillon_event_log::Codec, on
# success and on every error path: usage errors, refusals of each check, a
# tied value that dies part-way, malformed input at every place.  C++ memory
# is checked by running the suite under valgrind (make valgrind).
use strict;
use warnings;
use Test::More;
use lib 't/lib';
use QelTest qw(unhex);
use QelCodec qw(typical_record vi ld grp);

BEGIN {
    eval { require Test::LeakTrace; Test::LeakTrace->import; 1 }
        or plan skip_all => 'Test::LeakTrace not installed (apt-get install libtest-leaktrace-perl)';
}
use quillon_event_log::Codec;

my $CODEC = 'quillon_event_log::Codec';

package Dies {
    sub TIESCALAR { bless {}, shift }
    sub FETCH     { die "fetch died\n" }
}
package DiesHash {
    require Tie::Hash;
    our @ISA = ('Tie::StdHash');
    sub FETCH { die "fetch died\n" if $_[1] eq 'host'; $_[0]->SUPER::FETCH($_[1]) }
}

my %full = (%{ typical_record() }, _unknown => ['0:3005', '3:f80107'],
            dest_ip => { ip0 => 1, _unknown => ['1:3001'] });
my $bytes = encode_event(\%full);
my @codecs = map { $CODEC->new(%$_) } {}, { characters => 1 }, { addresses => 'text' },
    { unknown_fields => 'drop' }, { characters => 1, addresses => 'text', unknown_fields => 'drop' };

# Hashes each refused by one check, and inputs each malformed in one way.
my @bad_hashes = (
    { bot_nmae => 1 }, { zzz => 1, b => 2 }, { client_ip => { ipx => 1 } }, { bot_name => [] },
    { bot_name => "\x{263a}" }, { src_port => '12abc' }, { src_port => -1 }, { src_port => 1.5 },
    { device_id => '18446744073709551616' }, { mobile_is_app => 'yes' }, { mobile_is_app => {} },
    { client_ip => 'x' }, { client_ip => [] }, { client_ip => { ip0 => 'x' } }, { anomalies => 'x' },
    { anomalies => ['a', undef] }, { anomalies => ['a', []] }, { _unknown => 'x' }, { _unknown => ['x'] },
    { _unknown => ['1:3005', '0:3005'] }, { _unknown => ['0:0a00'] }, { _unknown => ['0:33'] },
    { client_ip => { _unknown => ['0:0801'] } }, { bot_name => 'a', host => 'b', src_port => 'x' },
    { bot_name => "\x{D800}" }, { client_ip => '1.2.3' },
);
my @bad_bytes = map { unhex($_) } qw(0a 80 00 ffffffff7f 36 0a05616263 2205 22020a05 3d0102 34 33 2201 0c),
    ('33' x 101) . ('34' x 101);

my $dies = do { tie my $t, 'Dies'; \$t };
my %cases = (
    'encode_event, every shape' => sub {
        my $b = encode_event(\%full);
        $b = encode_event({});
        $b = encode_event({ bot_name => "\xff", anomalies => ["\xfe"] });
    },
    'decode_event, every shape' => sub {
        my $h = decode_event($bytes);
        $h = decode_event('');
        $h = decode_event(ld(1, "\xff") . ld(45, "\xfe") . vi(6, 1) . ld(4, vi(1, 1) . vi(6, 2)) . grp(7, vi(1, 1)));
    },
    'every option, both ways' => sub {
        for my $c (@codecs) {
            my $b = $c->encode(\%full);
            my $h = $c->decode($bytes);
            $h = $c->decode(ld(1, "a\xffb") . ld(4, vi(1, 1) . vi(2, 2) . vi(3, 3) . vi(4, 4) . vi(5, 5)));
            $b = eval { $c->encode({ bot_name => "a\x{DCFF}", client_ip => '10.0.0.1%3' }) };
            my @o = ($c->characters, $c->addresses, $c->unknown_fields);
        }
    },
    'new, every shape and error' => sub {
        my $c = $CODEC->new(characters => 1, addresses => 'text', unknown_fields => 'drop');
        eval { $CODEC->new('x') };
        eval { $CODEC->new(foo => 1) };
        eval { $CODEC->new(addresses => 'x') };
        eval { $CODEC->new(unknown_fields => undef) };
        eval { quillon_event_log::Codec::new() };
    },
    'encode refusals' => sub {
        for my $h (@bad_hashes) {
            eval { encode_event($h) };
            eval { $codecs[4]->encode($h) };
        }
        eval { encode_event($_) } for undef, 'x', [], sub { }, \1, *STDOUT;
    },
    'decode refusals' => sub {
        for my $b (@bad_bytes) {
            eval { decode_event($b) };
            eval { $codecs[4]->decode($b) };
        }
        eval { decode_event($_) } for undef, [], "\x{100}";
    },
    'usage and invocant errors' => sub {
        eval { quillon_event_log::Codec::encode_event() };
        eval { quillon_event_log::Codec::decode_event(1, 2) };
        eval { $codecs[0]->encode };
        eval { $codecs[0]->decode(1, 2) };
        eval { quillon_event_log::Codec::encode([], {}) };
        eval { quillon_event_log::Codec::decode('quillon_event_log::Codec', '') };
        eval { quillon_event_log::Codec::characters(bless \(my $x = 1), $CODEC) };
    },
    'a dying tied value' => sub {
        eval { encode_event({ bot_name => 'a', host => $$dies }) };
        eval { encode_event({ anomalies => ['a', $$dies] }) };
        eval { encode_event({ client_ip => { ip0 => 1, ip1 => $$dies } }) };
        eval { encode_event({ _unknown => ['0:3005', $$dies] }) };
        eval { decode_event($$dies) };
        tie my %h, 'DiesHash';
        %h = (bot_name => 'a', host => 'b');
        eval { encode_event(\%h) };
    },
);

for my $name (sort keys %cases) {
    { no warnings; open my $saved, '>&', \*STDERR; open STDERR, '>', '/dev/null';
      $cases{$name}->();    # warm up: first calls may cache
      no_leaks_ok { $cases{$name}->() } "no leaks: $name";
      open STDERR, '>&', $saved; }
}

done_testing;
