# Reports in pieces: partial reports written and read back, merged to the
# figures of one pass; bounded counters (exact while they fit, then a
# heavy-hitters summary with a stated error bound) and a timeline that
# coarsens from minutes to hours to days; qel report --partial, --merge and
# --jobs, and GNU parallel over shards.
use strict;
use warnings;
use Test::More;
use lib 't/lib';
use QelTest qw(sh_words slurp);
use File::Temp qw(tempdir);
use JSON::XS ();

use quillon_event_log::Report;
use quillon_event_log::Sample;
use quillon_event_log::Stream;
use quillon_event_log::Codec;

quillon_event_log::RuntimeLog::mode('silent');
my $dir = tempdir(CLEANUP => 1);
my @qel = ($^X, '-Mblib', 'blib/script/qel');
my $T0 = 1763596800;


# Sample events as the tool sees them (characters, text addresses).
my $codec = quillon_event_log::Codec->new(characters => 1, addresses => 'text');
my $encoder = quillon_event_log::Codec->new(addresses => 'text');
my @events;
{
    my $gen = quillon_event_log::Sample->new(seed => 11, count => 3000);
    while (my $e = $gen->next) { push @events, $codec->decode($encoder->encode($e)) }
}

sub report_of { my $r = quillon_event_log::Report->new(@{ shift() }); $r->add($_) for @_; $r }

subtest 'partial reports: written, read back, merged to one pass' => sub {
    my $one = report_of([], @events);
    my @parts = map { my $i = $_; report_of([], @events[grep { $_ % 3 == $i } 0 .. $#events]) } 0 .. 2;
    my $merged = quillon_event_log::Report->new;
    $merged->merge(quillon_event_log::Report->from_partial($_->partial)) for @parts;
    is $merged->as_json, $one->as_json, 'three partials merge to the JSON of one pass';
    is $merged->as_text(unicode => 1), $one->as_text(unicode => 1), 'and to its text';
    my $partial = $one->partial;
    like $partial, qr/\A\{"format":"quillon_event_log report partial","max_keys":20000,"state":\{/, 'what a partial is';
    is(quillon_event_log::Report->from_partial($partial)->partial, $partial, 'a partial read back writes the same bytes');
    is(quillon_event_log::Report->from_partial($partial, top => 3)->summary->{top_n}, 3, 'top is the reader\'s');

    for (
        ['not json', qr/\Anot a partial report: 'null' expected, at character offset 0 \(before "not json"\) at /],
        ['{}', qr/\Anot a partial report at /],
        ['{"format":"quillon_event_log report partial","version":2}', qr/\Apartial report of version 2; this is version 1 at /],
        [$partial =~ s/"records":\d+/"records":"x"/r, qr/\Apartial report: records is not a number at /],
        [$partial =~ s/"unit":60/"unit":61/r, qr/\Apartial report: unit must be 60, 3600 or 86400 at /],
        [$partial =~ s/("classification":\{"[^"]+":)\d+/${1}0/r, qr/\Apartial report: a count of classification is not a positive number at /],
    ) {
        my ($bytes, $re) = @$_;
        eval { quillon_event_log::Report->from_partial($bytes) };
        like $@, $re, "refused: $re";
    }
};

subtest 'bounded counters: exact while they fit, then within the stated error' => sub {
    my $max = 40;
    # 2,000 records over 253 client addresses: three heavy, many light.
    my (@evs, %true);
    for my $i (0 .. 1999) {
        my $ip = $i % 4 == 0 ? '192.0.2.' . ($i % 3) : '198.51.100.' . ($i % 250);
        push @evs, { client_ip => $ip, request_time => $T0 + $i };
        $true{$ip}++;
    }
    my $r = report_of([max_keys => $max, top => 5], @evs);
    my $list = $r->summary->{top}{client_ip};
    is $list->{exact}, 0, 'no longer exact';
    cmp_ok $list->{error}, '>', 0, "error bound $list->{error}";
    cmp_ok $list->{error}, '<=', int(2000 / ($max + 1)), 'at most records / (max_keys + 1)';
    my $partial = JSON::XS->new->decode($r->partial);
    my $kept = $partial->{state}{client_ip};
    cmp_ok scalar(keys %$kept), '<=', 2 * $max, 'memory stays bounded: at most twice max_keys keys';
    my @bad = grep { $kept->{$_} > $true{$_} || $kept->{$_} < $true{$_} - $list->{error} } keys %$kept;
    is_deeply \@bad, [], 'every kept count is within [true - error, true]';
    my @missing = grep { $true{$_} > $list->{error} && !$kept->{$_} } keys %true;
    is_deeply \@missing, [], 'every key with more than the error is kept';
    is_deeply [map { $_->{key} } @{ $list->{items} }[0 .. 2]], ['192.0.2.0', '192.0.2.1', '192.0.2.2'],
        'the heavy hitters lead';
    like $r->as_text, qr/^Top client addresses \(5 of more than \d+; counts may be low by up to $list->{error}\)$/m,
        'the text form states the bound';
    my $exact = report_of([max_keys => 1000, top => 5], @evs)->summary->{top}{client_ip};
    is_deeply [$exact->{exact}, $exact->{error}, $exact->{distinct}], [1, 0, 253], 'with room, exact';
};

subtest 'the timeline coarsens: minutes, hours, days' => sub {
    my $r = report_of([max_keys => 50], map { { request_time => $T0 + 60 * $_, actual_mitigation_action => 'block' } } 0 .. 199);
    my $t = $r->summary->{timeline};
    is $t->{unit}, 3600, '200 minutes with room for 50: hours';
    is_deeply [map { $_->{count} } @{ $t->{buckets} }], [60, 60, 60, 20], 'counted exactly by hour';
    is_deeply $t->{buckets}[0]{actions}, { block => 60 }, 'by action';
    like $r->as_text, qr/^Requests per hour \(UTC\)$/m, 'the text form says so';
    my $days = report_of([max_keys => 3], map { { request_time => $T0 + 3600 * $_ } } 0 .. 24 * 10 - 1)->summary->{timeline};
    is $days->{unit}, 86400, 'ten days of hours with room for 3: days';
    my $fine = report_of([max_keys => 50], map { { request_time => $T0 + 60 * $_ } } 0 .. 9);
    my $coarse = report_of([max_keys => 50], map { { request_time => $T0 + 1800 * $_ } } 0 .. 59);
    is $coarse->summary->{timeline}{unit}, 3600, '60 half hours with room for 50: hours';
    $fine->merge($coarse);
    is $fine->summary->{timeline}{unit}, 3600, 'merging meets at the coarser unit';
    is $fine->summary->{timeline}{buckets}[0]{count}, 12, 'with the counts added';
};

my $stream = "$dir/all.qel";
{
    my $w = quillon_event_log::Stream->writer($stream, characters => 1, addresses => 'text');
    $w->write_event($_) for @events;
    $w->close;
}
my $one_json = `@{[sh_words(@qel, 'report', '--json', $stream)]}`;

subtest 'qel report --partial, --merge, --jobs' => sub {
    my @shards = map { "$dir/shard$_.qel" } 0 .. 3;
    my @w = map { quillon_event_log::Stream->writer($_, characters => 1, addresses => 'text') } @shards;
    $w[$_ % 4]->write_event($events[$_]) for 0 .. $#events;
    $_->close for @w;
    for my $i (0 .. 3) {
        system(sh_words(@qel, 'report', '--partial', $shards[$i]) . " > $dir/part$i.json") == 0 or die;
    }
    my $merged = `@{[sh_words(@qel, 'report', '--merge', '--json', map { "$dir/part$_.json" } 0 .. 3)]}`;
    is $merged, $one_json, '--merge of four partials: the JSON of one pass';
    is `@{[sh_words(@qel, 'report', '--merge', map { "$dir/part$_.json" } 0 .. 3)]}`,
       `@{[sh_words(@qel, 'report', $stream)]}`, 'and its text';
    system(sh_words(@qel, 'report', '--html', "$dir/one.html", $stream) . ' > /dev/null') == 0 or die;
    system(sh_words(@qel, 'report', '--merge', '--html', "$dir/merged.html", map { "$dir/part$_.json" } 0 .. 3) . ' > /dev/null') == 0 or die;
    my $page = slurp("$dir/one.html");
    like $page, qr/\A<!DOCTYPE html>/i, 'an HTML page';
    ok slurp("$dir/merged.html") eq $page, 'and its HTML page, byte for byte';
    for my $jobs (2, 3) {
        is `@{[sh_words(@qel, 'report', '--jobs', $jobs, '--json', $stream)]}`, $one_json, "--jobs $jobs over one file";
        is `@{[sh_words(@qel, 'report', '--jobs', $jobs, '--json', @shards)]}`, $one_json, "--jobs $jobs over four files";
    }
    my $small = JSON::XS->new->decode(scalar `@{[sh_words(@qel, 'report', '--max-keys', '5', '--json', $stream)]}`);
    is_deeply [map { $small->{top}{$_}{exact} } qw(bot_name country_code host)], [0, 0, 1],
        '--max-keys 5: lists of more than 10 keys are summaries, the 10 hosts are still exact';
    cmp_ok $small->{top}{bot_name}{error}, '>', 0, 'with an error bound';
    my $err = `@{[sh_words(@qel, 'report', '--merge', "$dir/shard0.qel")]} 2>&1 >/dev/null`;
    like $err, qr/\A\Q$dir\E\/shard0\.qel: not a partial report: /, 'a stream is not a partial';
    $err = `@{[sh_words(@qel, 'report', '--partial', '--json', $stream)]} 2>&1`;
    like $err, qr/\Aqel: --partial writes the partial report only: no --json or --html\n/, 'usage';

    # A corrupt record in a shared file is reported once, by the worker whose record it is.
    my $bad = "$dir/bad.qel";
    open my $fh, '>:raw', $bad or die;
    print $fh slurp($shards[0]), "\x02\x0f\x0f", slurp($shards[1]), "\x09\x0a";
    close $fh;
    my $count = sub { my $r = quillon_event_log::Stream->reader($_[0]); my $n = 0; $n++ while defined $r->next_bytes; $n };
    my ($r0, $r1) = map { $count->($_) } @shards[0, 1];
    my ($s0, $s1) = map { -s $_ } @shards[0, 1];
    $err = `@{[sh_words(@qel, 'report', '--jobs', '2', '--json', $bad)]} 2>&1 >/dev/null`;
    my $status = $? >> 8;
    is $err, "$bad: record @{[$r0 + 1]} at byte $s0: wire type 7 at byte 0 of the record\n"
           . "$bad: record @{[$r0 + $r1 + 2]} at byte @{[$s0 + 3 + $s1]}: truncated record: the prefix announces 9 bytes, 1 follow\n",
        'each problem reported once';
    is $status, 1, 'status 1';
};

SKIP: {
    skip 'GNU parallel is not installed', 1 unless grep { -x "$_/parallel" } split /:/, $ENV{PATH};
    subtest 'GNU parallel over eight shards, one merge' => sub {
        my @shards = map { "$dir/p$_.qel" } 0 .. 7;
        my @w = map { quillon_event_log::Stream->writer($_, characters => 1, addresses => 'text') } @shards;
        $w[int($_ * 8 / @events)]->write_event($events[$_]) for 0 .. $#events;
        $_->close for @w;
        my $cmd = 'parallel --will-cite --jobs 2 ' . sh_words(@qel, 'report', '--partial') . " {} '>' {}.part ::: " . sh_words(@shards);
        is system($cmd), 0, 'parallel ran qel report --partial on each shard';
        my $merged = `@{[sh_words(@qel, 'report', '--merge', '--json', map { "$_.part" } @shards)]}`;
        is $merged, $one_json, 'the merged --json report equals the single pass, byte for byte';
    };
}

done_testing;
