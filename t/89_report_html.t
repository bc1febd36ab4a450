# quillon_event_log::Report::Html: the page parsed back (no browser). The
# figures in its markup are the summary's, to the unit: hand-made events
# worked out by hand, sample records checked against their summary, and
# hand-made summaries for the huge cases (a month of ten million requests);
# the display bucket for one record up to a year; escaping of hostile keys;
# nothing in the page that could load anything.
use strict;
use warnings;
use utf8;
use Test::More;
use lib 't/lib';
use QelDom qw(parse_page elements by_id tagged text_of);
use POSIX ();

use quillon_event_log::Report;
use quillon_event_log::Report::Html;
use quillon_event_log::Sample;

# HTML::Parser (Debian: libhtml-parser-perl) reads the page as a browser's
# tokenizer would; without it the figures cannot be read back.
BEGIN {
    eval { require HTML::Parser; 1 }
        or plan skip_all => 'HTML::Parser is not installed (Debian package libhtml-parser-perl)';
}

my $HTML = 'quillon_event_log::Report::Html';
my $T0   = 1763596800;    # 2025-11-20T00:00:00Z

sub bars {
    my ($root, $id) = @_;
    my $fig = by_id($root, $id) or return;
    return map { [ $_->{attr}{'data-key'}, $_->{attr}{'data-count'} ] } tagged($fig, 'rect', 'bar');
}

# The timeline: { start => { count, actions => { action => count } } }, with
# every segment's own start checked against its bucket's.
sub timeline_of {
    my ($root) = @_;
    my $fig = by_id($root, 'timeline') or return;
    my %out;
    for my $g (tagged($fig, 'g', 'bucket')) {
        my $start = $g->{attr}{'data-start'};
        my $b = $out{$start} = { count => $g->{attr}{'data-count'}, actions => {}, sum => 0 };
        for my $r (tagged($g, 'rect', 'segment')) {
            die "segment of $r->{attr}{'data-start'} in the bucket of $start" unless $r->{attr}{'data-start'} eq $start;
            my $action = $r->{attr}{'data-action'} // "others:$r->{attr}{'data-others'}";
            $b->{actions}{$action} += $r->{attr}{'data-count'};
            $b->{sum} += $r->{attr}{'data-count'};
        }
    }
    return \%out;
}

# What the timeline should be: the summary's buckets added up by the test's
# own loop, into buckets of `width` seconds.
sub expected_timeline {
    my ($sum, $width) = @_;
    my %out;
    for my $b (@{ $sum->{timeline}{buckets} }) {
        my $start = $b->{start} - $b->{start} % $width;
        $out{$start}{count} += $b->{count};
        $out{$start}{actions}{$_} += $b->{actions}{$_} for keys %{ $b->{actions} };
    }
    return \%out;
}

# Checks of every figure of a page against its summary.
sub check_page {
    my ($name, $sum, $html) = @_;
    my $root = parse_page($html);
    subtest "$name: figures" => sub {
        is by_id($root, 'records')->{attr}{'data-count'}, $sum->{records}, 'record count';
        if (defined $sum->{time}{first}) {
            is by_id($root, 'first-request')->{attr}{'data-time'}, $sum->{time}{first}, 'first request';
            is text_of(by_id($root, 'first-request')), $sum->{time}{first_iso}, 'first request in words';
            is by_id($root, 'last-request')->{attr}{'data-time'}, $sum->{time}{last}, 'last request';
            is text_of(by_id($root, 'last-request')), $sum->{time}{last_iso}, 'last request in words';
            is by_id($root, 'span')->{attr}{'data-seconds'}, $sum->{time}{span_seconds}, 'span';
        }
        else {
            is by_id($root, 'first-request'), undef, 'no first request';
        }
        my $without = by_id($root, 'without-time');
        is $without && $without->{attr}{'data-count'}, $sum->{time}{without_time} || undef, 'records without time';

        my $width = by_id($root, 'timeline')->{attr}{'data-bucket-seconds'};
        my $got = timeline_of($root);
        my $want = expected_timeline($sum, $width);
        # Actions past the legend's colours share one series: fold them.
        my @legend = tagged(by_id($root, 'timeline'), 'g', 'legend-item');
        my %drawn = map { exists $_->{attr}{'data-action'} ? ($_->{attr}{'data-action'} => 1) : () } @legend;
        my ($others) = grep { exists $_->{attr}{'data-others'} } @legend;
        for my $b (values %$want) {
            for my $action (keys %{ $b->{actions} }) {
                next if $drawn{ $HTML->label($action) };
                $b->{actions}{"others:$others->{attr}{'data-others'}"} += delete $b->{actions}{$action};
            }
            $b->{actions} = { map { $HTML->label($_) => $b->{actions}{$_} } keys %{ $b->{actions} } };
        }
        is_deeply [ sort { $a <=> $b } keys %$got ], [ sort { $a <=> $b } keys %$want ], 'timeline: the buckets with requests';
        my ($total, $bad) = (0, 0);
        for my $start (keys %$want) {
            my $g = $got->{$start} or next;
            $total += $g->{sum};
            $bad++, diag "bucket $start: $g->{count} / $g->{sum}, want $want->{$start}{count}"
                unless $g->{count} == $want->{$start}{count} && $g->{sum} == $g->{count};
            $bad++, diag "bucket $start: actions differ"
                unless join(',', map { "$_=$g->{actions}{$_}" } sort keys %{ $g->{actions} })
                    eq join(',', map { "$_=$want->{$start}{actions}{$_}" } sort keys %{ $want->{$start}{actions} });
        }
        is $bad, 0, 'timeline: every bucket and segment as the summary has it';
        is $total, $sum->{records} - $sum->{time}{without_time}, 'timeline: segments add up to the records with a request_time';
        is by_id($root, 'timeline')->{attr}{'data-count'}, $total, 'timeline: its count';

        # Share tables: the first 20 values drawn, the others summed.
        for ([ classification => 'classification' ], [ actions => 'actual_mitigation_action' ]) {
            my ($id, $name) = @$_;
            my @rows = @{ $sum->{$name} };
            my @rest = @rows > 20 ? splice @rows, 20 : ();
            is_deeply [ bars($root, $id) ], [ map { [ $HTML->label($_->{key}), $_->{count} ] } @rows ], "$id: bars";
            my ($p) = tagged(by_id($root, $id), 'p', 'rest');
            my $n = 0;
            $n += $_->{count} for @rest;
            is_deeply $p && [ @{ $p->{attr} }{qw(data-rest-keys data-rest-count)} ], @rest ? [ scalar @rest, $n ] : undef,
                "$id: the values not drawn";
        }
        for ([ bots => 'bot_name' ], [ anomalies => 'anomalies' ], [ countries => 'country_code' ], [ hosts => 'host' ]) {
            my ($id, $list) = @$_;
            my $top = $sum->{top}{$list};
            is_deeply [ bars($root, $id) ], [ map { [ $HTML->label($_->{key}), $_->{count} ] } @{ $top->{items} } ], "$id: bars";
            my $fig = by_id($root, $id);
            is $fig->{attr}{'data-distinct'}, $top->{distinct}, "$id: distinct";
            is $fig->{attr}{'data-total'}, $top->{total}, "$id: total";
            my ($rest) = tagged($fig, 'p', 'rest');
            my $shown = 0;
            $shown += $_->{count} for @{ $top->{items} };
            is_deeply $rest && [ @{ $rest->{attr} }{qw(data-rest-keys data-rest-count)} ],
                $top->{distinct} > @{ $top->{items} } ? [ $top->{distinct} - @{ $top->{items} }, $top->{total} - $shown ] : undef,
                "$id: what the other keys add up to";
        }
        my $table = by_id($root, 'client-addresses');
        is_deeply [ map { [ $_->{attr}{'data-key'}, $_->{attr}{'data-count'} ] } grep { exists $_->{attr}{'data-key'} } $table ? tagged($table, 'tr') : () ],
            [ map { [ $HTML->label($_->{key}), $_->{count} ] } @{ $sum->{top}{client_ip}{items} } ], 'client addresses';
    };
    return $root;
}

# ---- hand-made events, worked out by hand -------------------------------------

my @events = (
    { classification => 'Browser', actual_mitigation_action => 'none', country_code => 'US', host => 'a.example',
      client_ip => '192.0.2.1', request_time => $T0 + 5 },
    { classification => 'Malicious Bot', actual_mitigation_action => 'block', bot_name => 'curl',
      anomalies => ['Missing Accept header', 'Known automation User-Agent'],
      country_code => 'CN', host => 'a.example', client_ip => '198.51.100.7', request_time => $T0 + 65 },
    { classification => 'Malicious Bot', actual_mitigation_action => 'block', bot_name => 'curl',
      anomalies => ['Missing Accept header'], country_code => 'CN', host => 'b.example',
      client_ip => '198.51.100.7', request_time => $T0 + 70 },
    { classification => 'Untrusted Bot', actual_mitigation_action => 'captcha', bot_name => 'Wget',
      country_code => 'DE', host => 'a.example', client_ip => '2001:db8::1', request_time => $T0 + 3599 },
    { host => 'b.example', client_ip => '192.0.2.1', request_time => $T0 + 7199 },
    { classification => 'Browser', actual_mitigation_action => 'none', country_code => 'US', host => 'a.example',
      client_ip => '192.0.2.1' },
);
{
    my $report = quillon_event_log::Report->new;
    $report->add($_) for @events;
    my $sum = $report->summary;
    my $html = $HTML->render($sum);
    my $root = check_page('hand-made events', $sum, $html);

    # The same figures as literals, from the events above.
    is by_id($root, 'records')->{attr}{'data-count'}, 6, 'six records';
    is by_id($root, 'without-time')->{attr}{'data-count'}, 1, 'one without request_time';
    is by_id($root, 'span')->{attr}{'data-seconds'}, 7194, 'span: 7199 - 5';
    is text_of(by_id($root, 'span')), '1h 59m 54s', 'span in words';
    is_deeply [ bars($root, 'classification') ],
        [ [ Browser => 2 ], [ 'Malicious Bot' => 2 ], [ '(none)' => 1 ], [ 'Untrusted Bot' => 1 ] ], 'classification, by hand';
    is_deeply [ bars($root, 'actions') ], [ [ block => 2 ], [ none => 2 ], [ '(none)' => 1 ], [ captcha => 1 ] ], 'actions, by hand';
    is_deeply [ bars($root, 'bots') ], [ [ curl => 2 ], [ Wget => 1 ] ], 'bots, by hand';
    is_deeply [ bars($root, 'anomalies') ], [ [ 'Missing Accept header' => 2 ], [ 'Known automation User-Agent' => 1 ] ],
        'anomalies, by hand';
    is_deeply [ bars($root, 'countries') ], [ [ CN => 2 ], [ US => 2 ], [ DE => 1 ] ], 'countries, by hand';
    is_deeply [ bars($root, 'hosts') ], [ [ 'a.example' => 4 ], [ 'b.example' => 2 ] ], 'hosts, by hand';
    is_deeply [ map { [ $_->{attr}{'data-key'}, $_->{attr}{'data-count'} ] } grep { exists $_->{attr}{'data-key'} } tagged(by_id($root, 'client-addresses'), 'tr') ],
        [ [ '192.0.2.1' => 3 ], [ '198.51.100.7' => 2 ], [ '2001:db8::1' => 1 ] ], 'client addresses, by hand';
    my $fig = by_id($root, 'timeline');
    is $fig->{attr}{'data-bucket-seconds'}, 60, 'two hours: buckets of a minute';
    is_deeply timeline_of($root), {
        $T0        => { count => 1, sum => 1, actions => { none => 1 } },
        $T0 + 60   => { count => 2, sum => 2, actions => { block => 2 } },
        $T0 + 3540 => { count => 1, sum => 1, actions => { captcha => 1 } },
        $T0 + 7140 => { count => 1, sum => 1, actions => { '(none)' => 1 } },
    }, 'timeline, by hand';
    like text_of($fig), qr/requests per minute \(UTC\), 5 requests in 120 buckets; 1 records without request_time are not shown/,
        'the timeline says its bucket, how many requests it shows and what it leaves out';
    like text_of(by_id($root, 'bots')), qr/\A\s*2 of 2\b/, 'the bots chart says how many of how many it shows';
    unlike $html, qr/counts may be low/, 'exact lists: no error bound';

    # The legend: every action of the timeline with its requests, in the
    # fixed order of the actions, each in one colour everywhere.
    my @legend = tagged($fig, 'g', 'legend-item');
    is_deeply [ map { [ $_->{attr}{'data-action'}, $_->{attr}{'data-count'} ] } @legend ],
        [ [ none => 1 ], [ captcha => 1 ], [ block => 2 ], [ '(none)' => 1 ] ], 'legend: actions in order, with their requests';
    my %colour;
    my $clash = 0;
    for my $rect ((map { tagged($_, 'rect') } @legend), tagged($fig, 'rect', 'segment'), tagged(by_id($root, 'actions'), 'rect', 'bar')) {
        my $action = $rect->{attr}{'data-action'} // $rect->{attr}{'data-key'} // $rect->{parent}{attr}{'data-action'};
        $clash++ if ($colour{$action} //= $rect->{attr}{fill}) ne $rect->{attr}{fill};
    }
    is $clash, 0, 'each action has one colour in the legend, the segments and the actions chart';
    is scalar(keys %{ { reverse %colour } }), 4, 'four actions, four colours';

    is $HTML->render($sum), $html, 'the same summary gives the same page';
}

# ---- sample records -------------------------------------------------------------

{
    my $report = quillon_event_log::Report->new(top => 7);
    my $gen = quillon_event_log::Sample->new(seed => 3, count => 5000);
    while (my $e = $gen->next) { $report->add($e) }
    my $sum = $report->summary;
    my $root = check_page('5000 sample records', $sum, $HTML->render($sum));
    # The samples spread over six hours: 360 minutes, the most bars drawn.
    is by_id($root, 'timeline')->{attr}{'data-bucket-seconds'}, 60, 'six hours of samples: buckets of a minute';
    is scalar(tagged(by_id($root, 'timeline'), 'g', 'bucket')), 360, '360 buckets';
    is scalar(bars($root, 'bots')), 7, 'top 7: seven bots';
}

# ---- the display bucket ------------------------------------------------------------

# A summary of requests at the given times (with the given actions), as a
# Report with that unit would count them.
sub summary_of {
    my (%opt) = @_;
    my $unit = $opt{unit} // 60;
    my %buckets;
    my ($records, $first, $last) = (0);
    for my $r (@{ $opt{requests} }) {
        my ($time, $action, $n) = @$r;
        $n //= 1;
        $buckets{ $time - $time % $unit }{$action} += $n;
        $records += $n;
        $first = $time if !defined $first || $time < $first;
        $last  = $time if !defined $last || $time > $last;
    }
    my %actions;
    for my $b (values %buckets) { $actions{$_} += $b->{$_} for keys %$b }
    my $empty = { items => [], distinct => 0, total => 0, exact => 1, error => 0 };
    return {
        records => $records, top_n => 10,
        time => { first => $first, last => $last, first_iso => POSIX::strftime('%Y-%m-%dT%H:%M:%SZ', gmtime $first),
                  last_iso => POSIX::strftime('%Y-%m-%dT%H:%M:%SZ', gmtime $last), span_seconds => $last - $first,
                  without_time => 0 },
        classification => [ { key => 'Browser', count => $records, share => 1 } ],
        actual_mitigation_action => [ map { { key => $_, count => $actions{$_} } } sort { $actions{$b} <=> $actions{$a} || $a cmp $b } keys %actions ],
        configured_vs_actual => [],
        error => {},
        top => { map { $_ => $empty } qw(bot_name bot_signature_category anomalies anomaly_categories country_code host client_ip request_path) },
        timeline => {
            unit => $unit,
            buckets => [ map {
                my $a = $buckets{$_};
                my $c = 0;
                $c += $_ for values %$a;
                { start => $_, count => $c, actions => $a }
            } sort { $a <=> $b } keys %buckets ],
        },
        %{ $opt{override} // {} },
    };
}

# [ name, summary, bucket seconds, number of display buckets, words ]
my @bucket_cases = (
    [ 'one record', summary_of(requests => [ [ $T0 + 1234, 'block' ] ]), 60, 1, 'minute' ],
    [ 'a 2-hour span', summary_of(requests => [ [ $T0, 'none' ], [ $T0 + 3600, 'block' ], [ $T0 + 7199, 'none' ] ]),
      60, 120, 'minute' ],
    [ 'six hours of minutes', summary_of(requests => [ [ $T0, 'none' ], [ $T0 + 6 * 3600 - 1, 'none' ] ]), 60, 360, 'minute' ],
    [ 'six hours and a minute', summary_of(requests => [ [ $T0, 'none' ], [ $T0 + 6 * 3600, 'none' ] ]), 300, 73, '5 minutes' ],
    [ 'a day', summary_of(requests => [ [ $T0, 'none' ], [ $T0 + 86399, 'alarm' ] ]), 300, 288, '5 minutes' ],
    [ 'two days', summary_of(requests => [ [ $T0 + 600, 'none' ], [ $T0 + 2 * 86400 - 1, 'alarm' ] ]), 900, 192, '15 minutes' ],
    [ 'a 10-day span', summary_of(requests => [ map { [ $T0 + $_ * 7 * 61, $_ % 3 ? 'none' : 'block', $_ % 5 + 1 ] } 0 .. 2023 ]),
      3600, 240, 'hour' ],
    [ 'a year of days', summary_of(unit => 86400, requests => [ [ $T0, 'none' ], [ $T0 + 364 * 86400, 'block' ] ]),
      2 * 86400, 183, '2 days' ],
    [ 'a day of hours', summary_of(unit => 3600, requests => [ [ $T0, 'none' ], [ $T0 + 86399, 'block' ] ]), 3600, 24, 'hour' ],
);
for my $case (@bucket_cases) {
    my ($name, $sum, $width, $count, $words) = @$case;
    is $HTML->bucket_seconds($sum->{timeline}), $width, "$name: display bucket";
    my $root = check_page($name, $sum, $HTML->render($sum));
    my $fig = by_id($root, 'timeline');
    is $fig->{attr}{'data-bucket-seconds'}, $width, "$name: the page's bucket";
    is scalar(@{ $HTML->regroup($sum->{timeline}, $width) }), $count, "$name: $count display buckets";
    like text_of($fig), qr/requests per \Q$words\E \(UTC\)/, "$name: the page says \"requests per $words\"";
}

# A month of ten million requests, counted per minute (a report keeps minutes
# up to 100,000 buckets): buckets of three hours.
{
    my @requests;
    my $n = 0;
    for my $m (0 .. 30 * 1440 - 1) {
        # 231 or 232 a minute, 10,000,000 in all, four actions in turn.
        my $c = $m < 10_000_000 - 231 * 43200 ? 232 : 231;
        push @requests, [ $T0 + 60 * $m, 'none', $c - 3 ], [ $T0 + 60 * $m + 1, (qw(block captcha alarm))[ $m % 3 ], 3 ];
        $n += $c;
    }
    is $n, 10_000_000, 'ten million requests made';
    my $sum = summary_of(requests => \@requests);
    is scalar(@{ $sum->{timeline}{buckets} }), 43200, 'in 43,200 minutes';
    my $html = $HTML->render($sum);
    my $root = check_page('thirty days of minutes', $sum, $html);
    my $fig = by_id($root, 'timeline');
    is $fig->{attr}{'data-bucket-seconds'}, 3 * 3600, 'thirty days: buckets of three hours';
    is $fig->{attr}{'data-count'}, 10_000_000, 'ten million requests in the timeline';
    is scalar(tagged($fig, 'g', 'bucket')), 240, '240 bars';
    like text_of($fig), qr/requests per 3 hours \(UTC\), 10000000 requests in 240 buckets/, 'the page says so';
    my $sums = timeline_of($root);
    is $sums->{ $T0 + 3 * 3600 }{count}, 180 * 232, 'a full three hours: 180 minutes of 232';
    cmp_ok length $html, '<', 400_000, 'the page stays small: ' . length($html) . ' characters';

    # The same month counted per hour, as a report does past 100,000 minutes.
    my $hours = summary_of(unit => 3600, requests => \@requests);
    $root = check_page('thirty days of hours', $hours, $HTML->render($hours));
    is by_id($root, 'timeline')->{attr}{'data-bucket-seconds'}, 3 * 3600, 'thirty days of hours: buckets of three hours';
    like text_of(by_id($root, 'timeline')), qr/the report counted requests per hour/, 'the page says the report counted hours';
}

# More actions than the timeline has colours for: the smallest share a series.
{
    my @actions = map { sprintf 'action-%02d', $_ } 1 .. 15;
    my $sum = summary_of(requests => [ map { my $i = $_; map { [ $T0 + 60 * $i, $actions[$_], $_ + 1 ] } 0 .. 14 } 0 .. 9 ]);
    my $root = check_page('fifteen actions', $sum, $HTML->render($sum));
    my $fig = by_id($root, 'timeline');
    my @legend = tagged($fig, 'g', 'legend-item');
    is scalar(@legend), 12, 'twelve series in the legend';
    is_deeply [ map { $_->{attr}{'data-action'} // "others:$_->{attr}{'data-others'}" } @legend ],
        [ @actions[4 .. 14], 'others:4' ], 'the eleven largest by name, then the four smallest together';
    is $legend[-1]{attr}{'data-count'}, 10 * (1 + 2 + 3 + 4), 'what the four smallest add up to';
}

# ---- lists that are not exact, long share tables, no records -----------------------

{
    my $sum = summary_of(requests => [ [ $T0, 'none', 500 ] ]);
    $sum->{top}{bot_name} = { items => [ { key => 'curl', count => 300 }, { key => 'Wget', count => 150 } ],
                              distinct => 9, total => 470, exact => 0, error => 17 };
    $sum->{top}{client_ip} = { items => [ { key => '192.0.2.9', count => 40 } ], distinct => 1, total => 40, exact => 0, error => 5 };
    $sum->{classification} = [ map { { key => "class $_", count => 20 + $_ } } reverse 1 .. 23 ];
    $sum->{error} = { bot_name => 17, client_ip => 5, classification => 2 };
    my $html = $HTML->render($sum);
    my $root = check_page('lists that are not exact', $sum, $html);
    my $bots = by_id($root, 'bots');
    is $bots->{attr}{'data-error'}, 17, 'bots: the error bound';
    like text_of($bots), qr/2 of 9 counts may be low by up to 17/, 'bots: the page says it';
    like text_of($bots), qr/and 7 more, 20 in all/, 'bots: the rest';
    is by_id($root, 'client-addresses')->{attr}{'data-error'}, 5, 'client addresses: the error bound';
    like $html, qr/1 of 1 <span class="note" data-error="5">counts may be low by up to 5</, 'client addresses: the page says it';
    unlike text_of(by_id($root, 'hosts')), qr/may be low/, 'an exact list has no bound';
    like text_of(by_id($root, 'classification')), qr/23 values counts may be low by up to 2/, 'a share table that is not exact';
    my @bars = bars($root, 'classification');
    is_deeply \@bars, [ map { [ "class $_", 20 + $_ ] } reverse 4 .. 23 ], 'classification: the 20 largest drawn';
    my ($rest) = tagged(by_id($root, 'classification'), 'p', 'rest');
    is_deeply [ @{ $rest->{attr} }{qw(data-rest-keys data-rest-count)} ], [ 3, 21 + 22 + 23 ], 'classification: the other 3 summed';
}
{
    my $html = $HTML->render(quillon_event_log::Report->new->summary);
    my $root = parse_page($html);
    is by_id($root, 'records')->{attr}{'data-count'}, 0, 'no records: a count of 0';
    is text_of(by_id($root, 'no-records')), 'no records', 'no records: the page says so';
    is by_id($root, 'timeline'), undef, 'no records: no timeline';
}
{
    my $report = quillon_event_log::Report->new;
    $report->add({ classification => 'Browser' }) for 1 .. 3;
    my $sum = $report->summary;
    my $root = check_page('records without time', $sum, $HTML->render($sum));
    like text_of(by_id($root, 'timeline')), qr/no request times/, 'without times: the timeline says so';
    is text_of(by_id($root, 'span')), '(none)', 'without times: no span';
}

# ---- escaping -------------------------------------------------------------------------

{
    my @hostile = ('<script>alert(1)</script>', '"><img src=x onerror=alert(1)>', "'><svg onload=alert(1)>",
                   '&amp; &lt;b&gt;', ']]><!--', '</title></svg><script>x</script>');
    my $report = quillon_event_log::Report->new(top => 20);
    for my $i (0 .. $#hostile) {
        $report->add({ bot_name => $hostile[$i], host => $hostile[$i], country_code => $hostile[$i], client_ip => $hostile[$i],
                       anomalies => [ $hostile[$i] ], classification => $hostile[$i], actual_mitigation_action => $hostile[$i],
                       request_time => $T0 + $i }) for 0 .. $i;
    }
    $report->add({ bot_name => "tab\there", host => "nul\x00del\x7F", country_code => "\x{DC80}\x{DCFF}", client_ip => '',
                   anomalies => ["\x{FFFE}"], request_time => $T0 + 99 });
    $report->add({ bot_name => 'Ünïcødé ✓', request_time => $T0 + 100 });
    my $sum = $report->summary;
    my $html = $HTML->render($sum, title => '<b>report</b> & "co"');
    my $root = check_page('hostile keys', $sum, $html);

    is scalar(elements($root, sub { $_[0]{tag} =~ /\A(?:script|img|iframe|object|embed|b)\z/ })), 0,
        'no script, img or other element from a key or the title';
    is scalar(elements($root, sub { grep { /\Aon/i } keys %{ $_[0]{attr} } })), 0, 'no event handler attribute';
    is scalar(grep { $_->{tag} eq 'svg' } elements($root, sub { 1 })), 7, 'the seven charts\' svg and no other';
    my %bots = map { @$_ } bars($root, 'bots');
    is $bots{ $hostile[$_] }, $_ + 1, "bot name " . ($_ + 1) . ' is a data-key, unchanged' for 0 .. $#hostile;
    is $bots{'tab\x09here'}, 1, 'a tab is shown as \x09';
    is $bots{'Ünïcødé ✓'}, 1, 'other characters as they are';
    is_deeply { map { @$_ } bars($root, 'hosts') }->{'nul\x00del\x7F'}, 1, 'NUL and DEL as \xHH';
    is_deeply { map { @$_ } bars($root, 'countries') }->{'\x80\xFF'}, 1, 'escaped bytes as \xHH';
    is_deeply { map { @$_ } bars($root, 'anomalies') }->{'\x{FFFE}'}, 1, 'a noncharacter as \x{FFFE}';
    my ($empty) = grep { $_->{attr}{'data-key'} eq '""' } grep { exists $_->{attr}{'data-key'} } tagged(by_id($root, 'client-addresses'), 'tr');
    ok $empty, 'the empty address is shown as ""';
    is text_of((tagged($root, 'title'))[0]), '<b>report</b> & "co"', 'the title, as text';
    is text_of((tagged($root, 'h1'))[0]), '<b>report</b> & "co"', 'the heading, as text';
    my @titles = grep { text_of($_) =~ /onerror/ } tagged($root, 'title');
    ok @titles >= 3, 'tooltips carry the hostile names as text';
    unlike $html, qr/<(?:script|img|svg on)/i, 'no such tag anywhere in the markup';
    unlike $html, qr/[\x00-\x08\x0B\x0C\x0E-\x1F\x7F\x{D800}-\x{DFFF}\x{FFFE}]/, 'no control character, surrogate or noncharacter in the page';
    my @legend = map { $_->{attr}{'data-action'} } tagged(by_id($root, 'timeline'), 'g', 'legend-item');
    is_deeply [ sort @legend ], [ sort @hostile, '(none)' ], 'hostile actions in the legend, as data';
}

# ---- nothing to load -------------------------------------------------------------------

for my $case ([ 'hand-made', do { my $r = quillon_event_log::Report->new; $r->add($_) for @events; $r->summary } ],
              [ 'a month', summary_of(requests => [ [ $T0, 'none' ], [ $T0 + 30 * 86400, 'block' ] ]) ]) {
    my ($name, $sum) = @$case;
    my $html = $HTML->render($sum);
    my $root = parse_page($html);
    is scalar(elements($root, sub { exists $_[0]{attr}{src} || exists $_[0]{attr}{href} || exists $_[0]{attr}{'xlink:href'} })), 0,
        "$name: no src or href attribute";
    my @urls = $html =~ m{(\S*https?:[^\s"]*)}gi;
    is_deeply [ sort { $a cmp $b } keys %{ { map { $_ => 1 } @urls } } ], [ 'xmlns="http://www.w3.org/2000/svg' ],
        "$name: the only URL is the SVG namespace";
    unlike $html, qr/\@import|url\(|<link|<script/i, "$name: no \@import, url(), link or script";
    my ($csp) = elements($root, sub { lc($_[0]{attr}{'http-equiv'} // '') eq 'content-security-policy' });
    is $csp && $csp->{attr}{content}, "default-src 'none'; style-src 'unsafe-inline'", "$name: the page forbids itself any load";
    like $html, qr/\A<!DOCTYPE html>\n<html lang="en">\n<head>\n<meta charset="utf-8">\n/, "$name: an HTML5 page in UTF-8";
}

# ---- the helpers ------------------------------------------------------------------------

is $HTML->label(''), '""', 'label: the empty string';
is $HTML->label("a\x1Bb\x{9F}"), 'a\x1Bb\x9F', 'label: C0 and C1 controls';
is $HTML->label("x\x{DCC3}\x{DCA9}"), 'x\xC3\xA9', 'label: escaped bytes';
is $HTML->label("\x{D800}"), '\x{D800}', 'label: another surrogate';
is $HTML->label('<a & b>'), '<a & b>', 'label: HTML is escaped later, not here';
is $HTML->bucket_name($_->[0]), $_->[1], "bucket_name $_->[0]"
    for [ 60, 'minute' ], [ 300, '5 minutes' ], [ 3600, 'hour' ], [ 10800, '3 hours' ], [ 86400, 'day' ], [ 172800, '2 days' ];
is_deeply $HTML->regroup({ unit => 60, buckets => [ { start => $T0 + 60, count => 2, actions => { a => 2 } },
                                                     { start => $T0 + 360, count => 3, actions => { a => 1, b => 2 } },
                                                     { start => $T0 + 1020, count => 1, actions => { b => 1 } } ] }, 300),
    [ { start => $T0, count => 2, actions => { a => 2 } }, { start => $T0 + 300, count => 3, actions => { a => 1, b => 2 } },
      { start => $T0 + 600, count => 0, actions => {} }, { start => $T0 + 900, count => 1, actions => { b => 1 } } ],
    'regroup: sums, gaps filled';
is $HTML->bucket_seconds({ unit => 60, buckets => [] }), 60, 'bucket_seconds: no buckets';
ok !eval { $HTML->render({ records => 0 }, colour => 1); 1 }, 'render: unknown option';
like $@, qr/\Aunknown option "colour" at /, 'render: its message';
ok !eval { $HTML->render([]); 1 }, 'render: not a summary';
like $@, qr/\Arender needs a summary \(a hash reference\) at /, 'render: its message';

done_testing;
