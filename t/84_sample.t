#!/usr/bin/perl
# quillon_event_log::Sample: its random numbers against an independent
# implementation, the options and their errors, the count, determinism, the
# request times, and that the records are varied, well-formed and encode.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(field_names);

use quillon_event_log::Sample;
use quillon_event_log::Codec;
use quillon_event_log::RuntimeLog;

my $SAMPLE = 'quillon_event_log::Sample';
my $codec  = quillon_event_log::Codec->new(addresses => 'text');
my $START  = 1763596800;    # 2026-11-20T00:00:00Z
my $SPAN   = 6 * 3600;

# The binary request bodies are not UTF-8, and the protocol-buffer runtime
# says so for each one: count the complaints instead of printing them.
quillon_event_log::RuntimeLog::mode('silent');

sub events {
    my $gen = $SAMPLE->new(@_);
    my @events;
    while (my $event = $gen->next) { push @events, $event }
    return @events;
}

sub error_of { my ($code) = @_; eval { $code->(); 1 } ? '' : $@ }

sub is_utf8_text { my ($bytes) = @_; utf8::decode($bytes) }

# A hash of the hash form as one string, for comparing many records quickly.
sub flat {
    my ($h) = @_;
    return join "\0", map { my $v = $h->{$_}; "$_=" . (ref $v ? join "\1", @$v : $v) } sort keys %$h;
}

# ---- the random numbers ------------------------------------------------------

# Expected outputs computed with a separate splitmix64 in Python 3
# (/usr/bin/python3), from the definition alone:
#   M = 2**64 - 1
#   s = (s + 0x9E3779B97F4A7C15) & M; z = s
#   z = ((z ^ (z >> 30)) * 0xBF58476D1CE4E5B9) & M
#   z = ((z ^ (z >> 27)) * 0x94D049BB133111EB) & M
#   output z ^ (z >> 31)
is_deeply [$SAMPLE->prng_outputs(1, 5)],
    [qw(10451216379200822465 13757245211066428519 17911839290282890590 8196980753821780235 8195237237126968761)],
    'the first five outputs for seed 1';
is_deeply [$SAMPLE->prng_outputs(0, 2)], [qw(16294208416658607535 7960286522194355700)],
    'seed 0';
is_deeply [$SAMPLE->prng_outputs('18446744073709551615', 2)], [qw(16490336266968443936 16834447057089888969)],
    'seed 2**64-1: the state wraps around';
is_deeply [$SAMPLE->prng_outputs('12345678901234567890', 2)], [qw(17967625711492519656 10296562921986250149)],
    'a seed above 2**63';
is_deeply [$SAMPLE->prng_outputs('0001', 1)], ['10451216379200822465'], 'leading zeros of a seed are ignored';
is_deeply [$SAMPLE->prng_outputs(1, 0)], [], 'no outputs';
is_deeply [$SAMPLE->prng_outputs(1, 2)], [$SAMPLE->prng_outputs(1, 2)], 'each call starts from the seed';

like error_of(sub { $SAMPLE->prng_outputs(-1, 1) }),
    qr/^quillon_event_log::Sample->prng_outputs: seed must be an integer from 0 to 18446744073709551615, not "-1" at /,
    'prng_outputs: a negative seed';
like error_of(sub { $SAMPLE->prng_outputs(1, 'x') }),
    qr/^quillon_event_log::Sample->prng_outputs: the number of outputs must be an integer from 0 to 999999999 at /,
    'prng_outputs: a bad number of outputs';

# ---- options -------------------------------------------------------------------

{
    my $gen = $SAMPLE->new;
    is $gen->seed,  1,    'seed defaults to 1';
    is $gen->count, 1000, 'count defaults to 1000';
    is $gen->index, 0,    'index is 0 before the first record';
    my $other = $SAMPLE->new(seed => undef, count => undef);
    is_deeply [$other->seed, $other->count], [1, 1000], 'undef options take their defaults';
    my $big = $SAMPLE->new(seed => '18446744073709551615', count => 3);
    is $big->seed, '18446744073709551615', 'the largest seed';
    is $SAMPLE->new(seed => '007', count => 1)->seed, 7, 'seed given as digits with leading zeros';
}

my @errors = (
    [[seed => 1, 'count'], qr/^quillon_event_log::Sample->new: odd number of arguments at /, 'odd arguments'],
    [[sede => 2], qr/^quillon_event_log::Sample->new: unknown option "sede" at /, 'unknown option'],
    [[seed => -1],
     qr/^quillon_event_log::Sample->new: seed must be an integer from 0 to 18446744073709551615, not "-1" at /,
     'negative seed'],
    [[seed => '18446744073709551616'],
     qr/^quillon_event_log::Sample->new: seed must be an integer from 0 to 18446744073709551615, not "18446744073709551616" at /,
     'seed of 2**64'],
    [[seed => 1.5],
     qr/^quillon_event_log::Sample->new: seed must be an integer from 0 to 18446744073709551615, not "1.5" at /,
     'seed with a fraction'],
    [[seed => 'abc'],
     qr/^quillon_event_log::Sample->new: seed must be an integer from 0 to 18446744073709551615, not "abc" at /,
     'seed that is not a number'],
    [[count => -1],
     qr/^quillon_event_log::Sample->new: count must be an integer from 0 to 281474976710655, not "-1" at /,
     'negative count'],
    [[count => '1e3'],
     qr/^quillon_event_log::Sample->new: count must be an integer from 0 to 281474976710655, not "1e3" at /,
     'count in exponent form'],
    [[count => '281474976710656'],
     qr/^quillon_event_log::Sample->new: count must be an integer from 0 to 281474976710655, not "281474976710656" at /,
     'count of 2**48'],
);
for my $case (@errors) {
    my ($args, $re, $name) = @$case;
    like error_of(sub { $SAMPLE->new(@$args) }), $re, "new: $name";
}

# ---- the count -------------------------------------------------------------------

{
    my $gen = $SAMPLE->new(seed => 3, count => 5);
    my @index = ($gen->index);
    my $records = 0;
    while (my $event = $gen->next) {
        $records++ if ref $event eq 'HASH';
        push @index, $gen->index;
    }
    is $records, 5, 'count 5: five hashes';
    is_deeply \@index, [0, 1, 2, 3, 4, 5], 'index counts the records returned';
    is $gen->next, undef, 'undef after the last record';
    is $gen->next, undef, '... and again';
    is $gen->index, 5, 'index stays at the count';
    is_deeply [$gen->next], [], 'an empty list in list context';

    my $none = $SAMPLE->new(count => 0);
    is $none->next, undef, 'count 0: no records';
}

# ---- determinism -----------------------------------------------------------------

{
    my @a = map { $codec->encode($_) } events(seed => 1, count => 500);
    my @b = map { $codec->encode($_) } events(seed => 1, count => 500);
    my @c = map { $codec->encode($_) } events(seed => 2, count => 500);
    is scalar @a, 500, '500 records';
    ok join('', @a) eq join('', @b), 'same seed and count: the same encoded bytes';
    is scalar(grep { $a[$_] eq $b[$_] } 0 .. $#a), 500, '... record for record';
    my $same = grep { $a[$_] eq $c[$_] } 0 .. $#a;
    is $same, 0, 'seed 2: every record differs from seed 1';

    # The count changes the request times only.
    my @short = events(seed => 1, count => 300);
    my @long  = events(seed => 1, count => 1000);
    my $differ = 0;
    for my $i (0 .. $#short) {
        my %s = %{ $short[$i] };
        my %l = %{ $long[$i] };
        delete @s{qw(request_time previous_request_time)};
        delete @l{qw(request_time previous_request_time)};
        $differ++ if $codec->encode(\%s) ne $codec->encode(\%l);
    }
    is $differ, 0, 'counts 300 and 1000: the first 300 records differ in their times only';
}

# ---- request times ---------------------------------------------------------------

# START + int(i * 21600 / count), worked out by hand for count 7.
is_deeply [map { $_->{request_time} } events(seed => 9, count => 7)],
    [1763596800, 1763599885, 1763602971, 1763606057, 1763609142, 1763612228, 1763615314],
    'count 7: request times spread over six hours';

my @events = events(seed => 1, count => 1000);
is_deeply [map { $events[$_]{request_time} } 0, 1, 2, 999],
    [1763596800, 1763596821, 1763596843, 1763618378],
    'count 1000: request times of records 0, 1, 2 and 999';
is scalar(grep { $_->{request_time} < $START || $_->{request_time} >= $START + $SPAN } @events), 0,
    'every request time within the six hours';
is scalar(grep { $events[$_]{request_time} < $events[$_ - 1]{request_time} } 1 .. $#events), 0,
    'request times never go back';
is scalar(grep { exists $_->{previous_request_time}
                 && !($_->{previous_request_time} < $_->{request_time}
                      && $_->{previous_request_time} >= $_->{request_time} - 900) } @events), 0,
    'previous request times are up to 15 minutes earlier';

# ---- variety and form (1000 records of seed 1) -----------------------------------

my (%bots, %classes, %v4, %v6, %dest_domains, %anomaly_counts, %methods);
my ($binary, $binary_posts, $same_action, $other_action, $uint64_bad, $flagged) = (0) x 6;
my ($length_bad, $anomaly_bad, $category_bad) = (0) x 3;
my $ipv4 = qr/\A(?:25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9]?[0-9])(?:\.(?:25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9]?[0-9])){3}(?:%[1-9][0-9]*)?\z/;
for my $e (@events) {
    $bots{ $e->{bot_name} }++ if defined $e->{bot_name};
    $classes{ $e->{classification} }++;
    $methods{ $e->{http_method} }++;
    my $client = $e->{client_ip};
    if ($client =~ $ipv4) { $v4{$client}++ } elsif ($client =~ /:/) { $v6{$client}++ }
    $dest_domains{$1}++ if $e->{dest_ip} =~ /%([0-9]+)\z/;

    if (is_utf8_text($e->{http_request})) {
        # Text requests: a body, if any, is as long as Content-Length says.
        my ($head, $body) = split /\r\n\r\n/, $e->{http_request}, 2;
        my ($declared) = $head =~ /^Content-Length: ([0-9]+)\r?$/m;
        $length_bad++ if ($declared // 0) != length $body;
    }
    else {
        $binary++;
        $binary_posts++ if $e->{http_method} =~ /\A(?:POST|PUT)\z/
            && $e->{http_request} =~ m{\r\nContent-Type: application/octet-stream\r\n};
    }

    if ($e->{configured_mitigation_action} eq $e->{actual_mitigation_action}) { $same_action++ }
    else { $other_action++ }

    my @anomalies  = @{ $e->{anomalies} || [] };
    my @categories = @{ $e->{anomaly_categories} || [] };
    $anomaly_counts{ scalar @anomalies }++;
    my %seen;
    $anomaly_bad++ if @anomalies > 4 || grep { $seen{$_}++ } @anomalies;
    %seen = ();
    $category_bad++ if @categories > 4 || @categories > @anomalies || grep { $seen{$_}++ } @categories;
    $category_bad++ if @categories && $e->{primary_anomaly_category} ne $categories[0];
    $category_bad++ if !@categories && exists $e->{primary_anomaly_category};

    for my $field (qw(device_id session_id support_id previous_support_id)) {
        next unless exists $e->{$field};
        my $v = $e->{$field};
        $uint64_bad++ unless $v =~ /\A(?:0|[1-9][0-9]*)\z/
            && (length $v < 20 || (length $v == 20 && $v le '18446744073709551615'));
    }
    for my $value (values %$e) {
        $flagged += grep { utf8::is_utf8($_) } ref $value ? @$value : $value;
    }
}
cmp_ok scalar(keys %bots), '>=', 10, 'at least ten distinct bot names';
is_deeply [grep { !$classes{$_} } 'Browser', 'Human', 'Suspicious Browser', 'Trusted Bot', 'Untrusted Bot',
                                  'Malicious Bot', 'Mobile Application'], [],
    'browser, human, bot and application records all present';
ok %v4 && %v6, 'IPv4 and IPv6 client addresses';
ok scalar(grep { $v4{$_} > 1 } keys %v4), 'some client addresses come back';
ok %dest_domains, 'destination addresses in route domains';
cmp_ok $binary, '>', 0, 'some requests are not valid UTF-8';
is $binary_posts, $binary, '... each a POST or PUT with a binary body';
is $length_bad, 0, 'text request bodies match their Content-Length';
ok $same_action && $other_action, 'configured and actual actions: equal in some records, different in others';
cmp_ok $other_action, '<', $same_action, '... mostly equal';
ok $anomaly_counts{0} && $anomaly_counts{4}, 'records with no anomalies and with four';
is $anomaly_bad,  0, 'anomalies: at most four, distinct';
is $category_bad, 0, 'anomaly categories: at most four, distinct, the first one primary';
is $uint64_bad,   0, 'uint64 fields are decimal digits within range';
is $flagged,      0, 'all strings are byte strings';
ok $methods{GET} && $methods{POST}, 'GET and POST requests';

{
    my %known = map { $_ => 1 } field_names();
    my @unknown = grep { !$known{$_} } map { keys %$_ } @events;
    is_deeply \@unknown, [], 'every key is a field of the schema';
    my @sizes = map { scalar keys %$_ } @events;
    is scalar(grep { $_ < 20 || $_ > 55 } @sizes), 0, 'between 20 and 55 fields per record';
}

# ---- every record encodes, and decodes back to itself ------------------------------

{
    quillon_event_log::RuntimeLog::reset_silenced();
    my $gen = $SAMPLE->new(seed => 1, count => 20_000);
    my ($records, $failures, $mismatches, $not_utf8) = (0, 0, 0, 0);
    my ($first_failure, $first_mismatch);
    while (my $e = $gen->next) {
        $records++;
        $not_utf8++ unless is_utf8_text($e->{http_request});
        my $bytes = eval { $codec->encode($e) };
        unless (defined $bytes) {
            $failures++;
            $first_failure //= "record $records: $@";
            next;
        }
        my $back = $codec->decode($bytes);
        if (flat($back) ne flat($e)) {
            $mismatches++;
            $first_mismatch //= $records;
        }
    }
    is $records, 20_000, '20,000 records';
    is $failures, 0, 'every record encodes' or diag $first_failure;
    is $mismatches, 0, 'every record decodes to the same hash (canonical address texts)'
        or diag "first mismatch: record $first_mismatch";
    # The runtime complains when such a string is written and when it is read.
    cmp_ok $not_utf8, '>', 0, 'some of them not UTF-8';
    is quillon_event_log::RuntimeLog::reset_silenced(), 2 * $not_utf8,
        'two complaints of the runtime (encode, decode) per request that is not UTF-8, none otherwise';
}

done_testing;
