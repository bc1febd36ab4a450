# quillon_event_log::Report: the figures of a small hand-made set of events,
# the exact text and JSON forms, merging, the top option and the time buckets.
use strict;
use warnings;
use utf8;
use Test::More;
use JSON::XS ();

use quillon_event_log::Report;

my $T0 = 1763596800;    # 2025-11-20T00:00:00Z

# Six events. Worked out by hand below: E4 has no classification, actions or
# country; E6 has no host, request_uri or request_time; two anomalies tie.
my @events = (
    {   classification => 'Browser', actual_mitigation_action => 'none', configured_mitigation_action => 'none',
        country_code => 'US', host => 'a.example', client_ip => '192.0.2.1',
        request_uri => '/index.html?x=1', request_time => $T0, src_port => 50000,
    },
    {   classification => 'Malicious Bot', actual_mitigation_action => 'block', configured_mitigation_action => 'block',
        bot_name => 'curl', bot_signature_category => 'HTTP Library',
        anomalies => ['Known automation User-Agent', 'Missing Accept header'],
        anomaly_categories => ['Automation', 'Headers'],
        country_code => 'CN', host => 'a.example', client_ip => '198.51.100.7',
        request_uri => '/login?user=x', request_time => $T0 + 65,
    },
    {   classification => 'Malicious Bot', actual_mitigation_action => 'alarm', configured_mitigation_action => 'block',
        bot_name => 'python-requests', bot_signature_category => 'HTTP Library',
        anomalies => ['Known automation User-Agent'], anomaly_categories => ['Automation'],
        country_code => 'CN', host => 'b.example', client_ip => '2001:db8::1',
        request_uri => '/login', request_time => $T0 + 200,
    },
    {   host => 'a.example', client_ip => '192.0.2.1', request_uri => '/index.html', request_time => $T0 + 59,
        classification => undef,
    },
    {   classification => 'Browser', actual_mitigation_action => 'none', configured_mitigation_action => 'alarm',
        anomalies => ['Missing Accept header'], anomaly_categories => ['Headers'],
        country_code => 'US', host => 'b.example', client_ip => '192.0.2.1',
        request_uri => '/login?a?b', request_time => $T0 + 239,
    },
    {   classification => 'Trusted Bot', actual_mitigation_action => 'none', configured_mitigation_action => 'none',
        bot_name => 'Googlebot', bot_signature_category => 'Search Engine', country_code => 'US',
        client_ip => '192.0.2.1', request_uri => '/catalogue/2026/winter/collection/items/page-0001.html?p=1',
    },
);

sub report_of {
    my ($top, @list) = @_;
    my $r = quillon_event_log::Report->new(top => $top);
    $r->add($_) for @list;
    return $r;
}

my $report = report_of(3, @events);

# The whole text of the report above, worked out by hand: shares of 6 records
# (1/6 = 16.7%, 4/6 = 66.7%); the largest count of each table gets 30 cells,
# so 1 of 4 client addresses gets 7.5 cells: 7 full blocks and a half block,
# or 8 '#' (halves round up); the 54-character path is cut to 40.
my $expected_unicode = <<'END';
Event report

Records
  records        6
  first request  2025-11-20T00:00:00Z
  last request   2025-11-20T00:03:59Z
  span           3m 59s
  without time   1

Classification
  Browser        2   33.3%  ██████████████████████████████
  Malicious Bot  2   33.3%  ██████████████████████████████
  (none)         1   16.7%  ███████████████
  Trusted Bot    1   16.7%  ███████████████

Actual mitigation action
  none    3   50.0%  ██████████████████████████████
  (none)  1   16.7%  ██████████
  alarm   1   16.7%  ██████████
  block   1   16.7%  ██████████

Configured vs actual action
  none -> none      2   33.3%  ██████████████████████████████
  (none) -> (none)  1   16.7%  ███████████████
  alarm -> none     1   16.7%  ███████████████
  block -> alarm    1   16.7%  ███████████████
  block -> block    1   16.7%  ███████████████

Top bot names (3 of 3)
  Googlebot        1   16.7%  ██████████████████████████████
  curl             1   16.7%  ██████████████████████████████
  python-requests  1   16.7%  ██████████████████████████████

Top bot signature categories (2 of 2)
  HTTP Library   2   33.3%  ██████████████████████████████
  Search Engine  1   16.7%  ███████████████

Top anomalies (2 of 2)
  Known automation User-Agent  2   33.3%  ██████████████████████████████
  Missing Accept header        2   33.3%  ██████████████████████████████

Top anomaly categories (2 of 2)
  Automation  2   33.3%  ██████████████████████████████
  Headers     2   33.3%  ██████████████████████████████

Top countries (2 of 2)
  US  3   50.0%  ██████████████████████████████
  CN  2   33.3%  ████████████████████

Top hosts (2 of 2)
  a.example  3   50.0%  ██████████████████████████████
  b.example  2   33.3%  ████████████████████

Top client addresses (3 of 3)
  192.0.2.1     4   66.7%  ██████████████████████████████
  198.51.100.7  1   16.7%  ███████▌
  2001:db8::1   1   16.7%  ███████▌

Top request paths (3 of 3)
  /login                                    3   50.0%  ██████████████████████████████
  /index.html                               2   33.3%  ████████████████████
  /catalogue/2026/winter/collection/items…  1   16.7%  ██████████

Requests per minute (UTC)
  2025-11-20 00:00  2   33.3%  ██████████████████████████████
  2025-11-20 00:01  1   16.7%  ███████████████
  2025-11-20 00:02  0    0.0%
  2025-11-20 00:03  2   33.3%  ██████████████████████████████
END

my $expected_ascii = <<'END';
Event report

Records
  records        6
  first request  2025-11-20T00:00:00Z
  last request   2025-11-20T00:03:59Z
  span           3m 59s
  without time   1

Classification
  Browser        2   33.3%  ##############################
  Malicious Bot  2   33.3%  ##############################
  (none)         1   16.7%  ###############
  Trusted Bot    1   16.7%  ###############

Actual mitigation action
  none    3   50.0%  ##############################
  (none)  1   16.7%  ##########
  alarm   1   16.7%  ##########
  block   1   16.7%  ##########

Configured vs actual action
  none -> none      2   33.3%  ##############################
  (none) -> (none)  1   16.7%  ###############
  alarm -> none     1   16.7%  ###############
  block -> alarm    1   16.7%  ###############
  block -> block    1   16.7%  ###############

Top bot names (3 of 3)
  Googlebot        1   16.7%  ##############################
  curl             1   16.7%  ##############################
  python-requests  1   16.7%  ##############################

Top bot signature categories (2 of 2)
  HTTP Library   2   33.3%  ##############################
  Search Engine  1   16.7%  ###############

Top anomalies (2 of 2)
  Known automation User-Agent  2   33.3%  ##############################
  Missing Accept header        2   33.3%  ##############################

Top anomaly categories (2 of 2)
  Automation  2   33.3%  ##############################
  Headers     2   33.3%  ##############################

Top countries (2 of 2)
  US  3   50.0%  ##############################
  CN  2   33.3%  ####################

Top hosts (2 of 2)
  a.example  3   50.0%  ##############################
  b.example  2   33.3%  ####################

Top client addresses (3 of 3)
  192.0.2.1     4   66.7%  ##############################
  198.51.100.7  1   16.7%  ########
  2001:db8::1   1   16.7%  ########

Top request paths (3 of 3)
  /login                                    3   50.0%  ##############################
  /index.html                               2   33.3%  ####################
  /catalogue/2026/winter/collection/ite...  1   16.7%  ##########

Requests per minute (UTC)
  2025-11-20 00:00  2   33.3%  ##############################
  2025-11-20 00:01  1   16.7%  ###############
  2025-11-20 00:02  0    0.0%
  2025-11-20 00:03  2   33.3%  ##############################
END

my %TOP_NAMES = map { $_ => 1 }
    qw(bot_name bot_signature_category anomalies anomaly_categories country_code host client_ip request_path);

subtest 'the fields the report reads are fields of the record' => sub {
    require quillon_event_log::QuillonEventLog;
    my %field = map { $_ => 1 } quillon_event_log::QuillonEventLog->fields;
    for my $f (qw(classification actual_mitigation_action configured_mitigation_action bot_name
                  bot_signature_category anomalies anomaly_categories country_code host client_ip
                  request_uri request_time)) {
        ok $field{$f}, "$f is a field";
    }
};

subtest 'summary: exact figures' => sub {
    my $s = $report->summary;
    is $s->{records}, 6, 'six records';
    is $s->{top_n},   3, 'top_n is the option';
    is_deeply $s->{time}, {
        first => $T0, last => $T0 + 239, first_iso => '2025-11-20T00:00:00Z', last_iso => '2025-11-20T00:03:59Z',
        span_seconds => 239, without_time => 1,
    }, 'time span; the record without request_time is counted apart';

    is_deeply $s->{classification}, [
        { key => 'Browser',       count => 2, share => 0.3333 },
        { key => 'Malicious Bot', count => 2, share => 0.3333 },
        { key => '(none)',        count => 1, share => 0.1667 },
        { key => 'Trusted Bot',   count => 1, share => 0.1667 },
    ], 'classification: undef counts as (none); ties by key, "(" before letters; 1/6 rounds up to 0.1667';
    is_deeply $s->{actual_mitigation_action}, [
        { key => 'none',   count => 3, share => 0.5 },
        { key => '(none)', count => 1, share => 0.1667 },
        { key => 'alarm',  count => 1, share => 0.1667 },
        { key => 'block',  count => 1, share => 0.1667 },
    ], 'actual action: a missing key counts as (none)';
    is_deeply $s->{configured_vs_actual}, [
        { configured => 'none',   actual => 'none',   count => 2, share => 0.3333 },
        { configured => '(none)', actual => '(none)', count => 1, share => 0.1667 },
        { configured => 'alarm',  actual => 'none',   count => 1, share => 0.1667 },
        { configured => 'block',  actual => 'alarm',  count => 1, share => 0.1667 },
        { configured => 'block',  actual => 'block',  count => 1, share => 0.1667 },
    ], 'pairs: count, then configured, then actual';

    is_deeply [ sort keys %{ $s->{top} } ], [ sort keys %TOP_NAMES ], 'eight top lists';
    is_deeply $s->{top}{bot_name}, {
        items => [ { key => 'Googlebot', count => 1 }, { key => 'curl', count => 1 }, { key => 'python-requests', count => 1 } ],
        distinct => 3, total => 3, exact => 1, error => 0,
    }, 'bot names: a three-way tie in code-point order (upper case first); absent names not counted';
    is_deeply $s->{top}{bot_signature_category}, {
        items => [ { key => 'HTTP Library', count => 2 }, { key => 'Search Engine', count => 1 } ],
        distinct => 2, total => 3, exact => 1, error => 0,
    }, 'bot signature categories';
    is_deeply $s->{top}{anomalies}, {
        items => [ { key => 'Known automation User-Agent', count => 2 }, { key => 'Missing Accept header', count => 2 } ],
        distinct => 2, total => 4, exact => 1, error => 0,
    }, 'anomalies: each element counts; total exceeds the records with anomalies';
    is_deeply $s->{top}{anomaly_categories}, {
        items => [ { key => 'Automation', count => 2 }, { key => 'Headers', count => 2 } ],
        distinct => 2, total => 4, exact => 1, error => 0,
    }, 'anomaly categories';
    is_deeply $s->{top}{country_code}, {
        items => [ { key => 'US', count => 3 }, { key => 'CN', count => 2 } ], distinct => 2, total => 5, exact => 1, error => 0,
    }, 'countries: the record without one is not counted';
    is_deeply $s->{top}{host}, {
        items => [ { key => 'a.example', count => 3 }, { key => 'b.example', count => 2 } ], distinct => 2, total => 5, exact => 1, error => 0,
    }, 'hosts';
    is_deeply $s->{top}{client_ip}, {
        items => [ { key => '192.0.2.1', count => 4 }, { key => '198.51.100.7', count => 1 }, { key => '2001:db8::1', count => 1 } ],
        distinct => 3, total => 6, exact => 1, error => 0,
    }, 'client addresses, both families';
    is_deeply $s->{top}{request_path}, {
        items => [
            { key => '/login', count => 3 }, { key => '/index.html', count => 2 },
            { key => '/catalogue/2026/winter/collection/items/page-0001.html', count => 1 },
        ],
        distinct => 3, total => 6, exact => 1, error => 0,
    }, 'request paths: the query is cut at the first "?"';
    is_deeply $s->{timeline}, { unit => 60, buckets => [
        { start => $T0,       count => 2, actions => { none => 1, '(none)' => 1 } },
        { start => $T0 + 60,  count => 1, actions => { block => 1 } },
        { start => $T0 + 180, count => 2, actions => { alarm => 1, none => 1 } },
    ] }, 'timeline: sparse minutes by actual action, seconds 0 and 59 in the first minute';
    is_deeply $s->{error}, {}, 'no counter is approximate';

    $s->{records} = 99;
    push @{ $s->{classification} }, { key => 'x', count => 1, share => 0 };
    is $report->summary->{records}, 6, 'changing a summary does not change the report';
};

subtest 'top option' => sub {
    my $s = report_of(1, @events)->summary;
    is $s->{top_n}, 1, 'top_n 1';
    is_deeply $s->{top}{$_->[0]}{items}, [ { key => $_->[1], count => $_->[2] } ], "$_->[0]: only the first"
        for [ bot_name => 'Googlebot', 1 ], [ client_ip => '192.0.2.1', 4 ], [ request_path => '/login', 3 ];
    is $s->{top}{client_ip}{distinct}, 3, 'distinct still counts every key';
    is scalar @{ $s->{classification} }, 4, 'the share tables are never cut';
    is(quillon_event_log::Report->new->summary->{top_n}, 10, 'top is 10 by default');
};

subtest 'time buckets' => sub {
    is_deeply(quillon_event_log::Report->time_buckets($report->summary->{timeline}), {
        width => 1,
        rows  => [
            { start => $T0, count => 2 }, { start => $T0 + 60, count => 1 },
            { start => $T0 + 120, count => 0 }, { start => $T0 + 180, count => 2 },
        ],
    }, 'minutes with zeros filled in');
    my $minutes = sub { { unit => 60, buckets => [ map { { start => $T0 + 60 * $_, count => 1 } } @_ ] } };
    is(quillon_event_log::Report->time_buckets($minutes->(0, 59))->{width}, 1, '60 minutes: 60 rows of one minute');
    is_deeply(quillon_event_log::Report->time_buckets($minutes->(0, 1, 60)), {
        width => 2,
        rows  => [ { start => $T0, count => 2 }, (map { { start => $T0 + 120 * $_, count => 0 } } 1 .. 29),
                   { start => $T0 + 3600, count => 1 } ],
    }, '61 minutes: 31 rows of two');
    is_deeply(quillon_event_log::Report->time_buckets($minutes->(3, 7, 14), max_rows => 2), {
        width => 10, rows => [ { start => $T0, count => 2 }, { start => $T0 + 600, count => 1 } ],
    }, 'buckets start at multiples of their width');
    is(quillon_event_log::Report->time_buckets($minutes->(0, 359))->{width}, 10, 'six hours: 10-minute buckets');
    my $days = quillon_event_log::Report->time_buckets($minutes->(0, 60 * 1440));
    is $days->{width}, 2880, '61 days: buckets of two days';
    is scalar @{ $days->{rows} }, 31, '... 31 of them';
    is_deeply(quillon_event_log::Report->time_buckets({ unit => 60, buckets => [] }), { width => 1, rows => [] }, 'no minutes');
    my $hours = { unit => 3600, buckets => [ map { { start => $T0 + 3600 * $_, count => 2 } } 0, 1, 5 ] };
    is_deeply(quillon_event_log::Report->time_buckets($hours), {
        width => 60, rows => [ map { { start => $T0 + 3600 * $_, count => $_ == 2 || $_ > 5 || $_ == 3 || $_ == 4 ? 0 : 2 } } 0 .. 5 ],
    }, 'a timeline of hours is shown in hours at the finest');
};

# The sections of a text form by title, each body ending in its newline.
sub sections {
    my ($text) = @_;
    return map { /\A([^\n]*)\n(.*)\z/s } split /(?<=\n)\n/, $text;
}

subtest 'as_text: exact text' => sub {
    is $report->as_text(unicode => 1), $expected_unicode, 'unicode: block bars, eighth block for 7.5 cells, ellipsis';
    is $report->as_text(unicode => 0), $expected_ascii, "ascii: '#' bars rounded (7.5 cells make 8), three dots";
    is $report->as_text, $expected_ascii, 'ascii is the default';
    is(quillon_event_log::Report->new->as_text(unicode => 1), "Event report\n\nno records\n", 'no records');

    # Bars of 3/7 of 30 cells (12.86: 103 eighths) and labels that need escaping.
    my $r = report_of(10,
        (map { { host => 'h' } } 1 .. 7), (map { { host => "x\x{1b}[31m\x{DC80}" } } 1 .. 3), { host => '' });
    my %section = sections($r->as_text(unicode => 1));
    is $section{'Top hosts (3 of 3)'},
        "  h              7   63.6%  ██████████████████████████████\n"
      . "  x\\x1B[31m\\x80  3   27.3%  ████████████▉\n"
      . "  \"\"             1    9.1%  ████▎\n",
        'escaped labels, 12 7/8 and 4 2/8 cells';
    %section = sections($r->as_text(unicode => 0));
    is $section{'Top hosts (3 of 3)'},
        "  h              7   63.6%  ##############################\n"
      . "  x\\x1B[31m\\x80  3   27.3%  #############\n"
      . "  \"\"             1    9.1%  ####\n",
        'the same in ascii';
    is $section{'Top bot names'}, "  none\n", 'an empty top list';
    is $section{'Requests per minute (UTC)'}, "  none\n", 'no request times';
    is $section{Records},
        "  records        11\n  first request  (none)\n  last request   (none)\n  span           (none)\n  without time   11\n",
        'records without request times';

    my $long = 'b' x 40;
    %section = sections(report_of(10, { host => $long }, { host => "${long}c" })->as_text);
    is $section{'Top hosts (2 of 2)'},
        "  $long  1   50.0%  ##############################\n  " . ('b' x 37) . "...  1   50.0%  ##############################\n",
        '40 characters stay, 41 are cut';
};

subtest 'as_json' => sub {
    my $json = $report->as_json;
    like $json, qr/\A\{"actual_mitigation_action":\[\{"count":3,"key":"none","share":0\.5\},/, 'sorted keys, numbers unquoted';
    like $json, qr/"time":\{"first":1763596800,"first_iso":"2025-11-20T00:00:00Z","last":1763597039,/, 'time figures';
    like $json, qr/\}\n\z/, 'one line ending in a newline';
    is_deeply(JSON::XS->new->utf8->decode($json), $report->summary, 'decodes to the summary');
    is(quillon_event_log::Report->new->as_json,
        '{"actual_mitigation_action":[],"classification":[],"configured_vs_actual":[],"error":{},"records":0,'
      . '"time":{"first":null,"first_iso":null,"last":null,"last_iso":null,"span_seconds":null,"without_time":0},'
      . '"timeline":{"buckets":[],"unit":60},'
      . '"top":{"anomalies":{"distinct":0,"error":0,"exact":1,"items":[],"total":0},"anomaly_categories":{"distinct":0,"error":0,"exact":1,"items":[],"total":0},'
      . '"bot_name":{"distinct":0,"error":0,"exact":1,"items":[],"total":0},"bot_signature_category":{"distinct":0,"error":0,"exact":1,"items":[],"total":0},'
      . '"client_ip":{"distinct":0,"error":0,"exact":1,"items":[],"total":0},"country_code":{"distinct":0,"error":0,"exact":1,"items":[],"total":0},'
      . '"host":{"distinct":0,"error":0,"exact":1,"items":[],"total":0},"request_path":{"distinct":0,"error":0,"exact":1,"items":[],"total":0}},"top_n":10}' . "\n",
        'an empty report');

    my $seen = $T0 + 61;
    my $printed = "$seen";    # a number that has been used as a string
    my $r = report_of(10, { host => "b\x{fc}cher.example", request_time => $seen });
    like $r->as_json, qr/"host":\{"distinct":1,"error":0,"exact":1,"items":\[\{"count":1,"key":"b\xc3\xbccher.example"\}\]/,
        'UTF-8 bytes';
    like $r->as_json, qr/"time":\{"first":1763596861,"first_iso":"2025-11-20T00:01:01Z",/,
        'a request_time that has been used as a string still comes out as a number';
};

subtest 'merge' => sub {
    my $one = report_of(3, @events);
    my $half  = report_of(3, @events[0, 2, 5]);
    my $other = report_of(3, @events[1, 3, 4]);
    is $half->merge($other), $half, 'merge returns the report';
    is $half->as_json, $one->as_json, 'two halves merged: the same JSON bytes as one pass';
    is $half->as_text(unicode => 1), $expected_unicode, '... and the same text';
    is $other->summary->{records}, 3, 'the other report is unchanged';

    my $empty = quillon_event_log::Report->new(top => 3);
    $empty->merge($one);
    is $empty->as_json, $one->as_json, 'merged into an empty report';
    my $copy = report_of(3, @events)->merge(quillon_event_log::Report->new);
    is $copy->as_json, $one->as_json, 'an empty report merged in changes nothing';
    my $timeless = report_of(3, $events[5]);
    $timeless->merge(report_of(3, @events[0 .. 4]));
    is $timeless->as_json, $one->as_json, 'a report without request times takes the other one\'s';
    my $twice = report_of(3, @events, @events);
    is report_of(3, @events)->merge($one)->as_json, $twice->as_json, 'counts add up exactly';

    eval { $one->merge({}) };
    like $@, qr/^merge needs a quillon_event_log::Report at /, 'merge refuses a hash';
};

subtest 'addresses left as hashes, options and errors' => sub {
    my $s = report_of(10, { client_ip => { ip0 => 0, ip3 => 3405803821 } })->summary;
    is_deeply $s->{top}{client_ip}{items}, [ { key => '{ip0=0,ip3=3405803821}', count => 1 } ], 'counted under its words';
    $s = report_of(10, { client_ip => { ip3 => 1, _unknown => [ '0:3001', '1:3802' ] } })->summary;
    is $s->{top}{client_ip}{items}[0]{key}, '{_unknown=0:3001/1:3802,ip3=1}', '... and its unknown fields';

    for my $bad (0, -1, 1.5, 'x', undef, [], '') {
        eval { quillon_event_log::Report->new(top => $bad) };
        like $@, qr/^top must be a positive integer at /, 'top => ' . (defined $bad ? "'$bad'" : 'undef') . ' refused';
    }
    eval { quillon_event_log::Report->new(tpo => 3) };
    like $@, qr/^unknown option "tpo" at /, 'unknown option of new';
    eval { $report->as_text(utf8 => 1) };
    like $@, qr/^unknown option "utf8" at /, 'unknown option of as_text';
    eval { quillon_event_log::Report->time_buckets([], max_rows => 0) };
    like $@, qr/^max_rows must be a positive integer at /, 'max_rows 0 refused';
};

done_testing;
