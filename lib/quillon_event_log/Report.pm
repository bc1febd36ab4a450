package quillon_event_log::Report;

# Counts event records (hashes as the codec decodes them) into plain hashes of
# counts, and turns those counts into one summary structure that the text and
# JSON renderers below only read. Counting and rendering stay apart so that
# reports can be merged by addition and rendered in other forms later.

use strict;
use warnings;

use Carp qw(croak);
use JSON::XS ();
use POSIX ();

our $VERSION = '1.0';

# The label of an absent field in the share tables, so that their shares add up.
my $NONE = '(none)';

# The counters of the top-N lists, in the order the text form prints them,
# with their section titles. request_path is request_uri without its query.
my @TOP_LISTS = (
    [ bot_name               => 'Top bot names' ],
    [ bot_signature_category => 'Top bot signature categories' ],
    [ anomalies              => 'Top anomalies' ],
    [ anomaly_categories     => 'Top anomaly categories' ],
    [ country_code           => 'Top countries' ],
    [ host                   => 'Top hosts' ],
    [ client_ip              => 'Top client addresses' ],
    [ request_path           => 'Top request paths' ],
);

# Text form: widest label before truncation, widest bar, most time rows.
my $LABEL_WIDTH = 40;
my $BAR_WIDTH   = 30;
my $TIME_ROWS   = 60;

# Widths of the time buckets of the text form, in minutes; wider spans use
# whole days. Each divides a day, so buckets start at round times.
my @BUCKET_MINUTES = (1, 2, 5, 10, 15, 30, 60, 120, 180, 360, 720, 1440);

my @EIGHTHS = ('', "\x{258F}", "\x{258E}", "\x{258D}", "\x{258C}", "\x{258B}", "\x{258A}", "\x{2589}");
my $FULL_BLOCK = "\x{2588}";

my $JSON = JSON::XS->new->utf8->canonical;

# Memory stays bounded whatever the input: a counter keeps exact counts while
# it has at most twice this many keys; past that it keeps the largest counts
# (see _compact), and the timeline counts hours, then days, instead of
# minutes.  Counters are looked at every CHECK_EVERY records.
my $MAX_KEYS    = 20_000;
my $CHECK_EVERY = 4096;

# The bounded counters: the share tables and the top lists.  A pair of
# configured and actual action is one key, the two joined by a NUL.
my @COUNTERS = (qw(classification actual_mitigation_action configured_vs_actual), map { $_->[0] } @TOP_LISTS);

# What a partial report (state as JSON) says it is, so that --merge can tell.
my $PARTIAL_FORMAT = 'quillon_event_log report partial';
my $PARTIAL_VERSION = 1;

sub new {
    my ($class, %opt) = @_;
    my $top = exists $opt{top} ? delete $opt{top} : 10;
    my $max = exists $opt{max_keys} ? delete $opt{max_keys} : $MAX_KEYS;
    croak "unknown option \"$_\"" for sort keys %opt;
    croak 'top must be a positive integer'
        unless defined $top && !ref $top && $top =~ /\A[1-9][0-9]*\z/;
    croak 'max_keys must be a positive integer'
        unless defined $max && !ref $max && $max =~ /\A[1-9][0-9]*\z/;
    # Small bounds are looked at more often, so that they hold all the same.
    my $every = $max < $CHECK_EVERY ? $max : $CHECK_EVERY;
    return bless { top => 0 + $top, max_keys => 0 + $max, check_every => $every, state => _empty_state() }, $class;
}

sub _empty_state {
    return {
        records      => 0,
        without_time => 0,
        # request_time is a uint32: these bounds give way to the first time
        # counted, without a test for "none yet" in add or merge.
        first_time   => 2**32,
        last_time    => -1,
        # Requests over time: bucket start (unix seconds) => { actual
        # mitigation action => count }, buckets of `unit` seconds.
        unit     => 60,
        timeline => {},
        # The counters, each a hash of counts, and how far each one's counts
        # may be low (0 while it is exact).
        (map { $_ => {} } @COUNTERS),
        error => { map { $_ => 0 } @COUNTERS },
    };
}

# The fields add reads: a reader can decode only these.
my @FIELDS = qw(classification actual_mitigation_action configured_mitigation_action bot_name
                bot_signature_category country_code host anomalies anomaly_categories client_ip
                request_uri request_time);

sub fields { @FIELDS }

# The hot path: one hash increment per figure, nothing else.
sub add {
    my ($self, $e) = @_;
    my $s = $self->{state};
    $s->{records}++;

    $s->{classification}{ $e->{classification} // $NONE }++;
    my $actual = $e->{actual_mitigation_action} // $NONE;
    $s->{actual_mitigation_action}{$actual}++;
    $s->{configured_vs_actual}{ ($e->{configured_mitigation_action} // $NONE) . "\0$actual" }++;

    my $v;
    $s->{bot_name}{$v}++               if defined($v = $e->{bot_name});
    $s->{bot_signature_category}{$v}++ if defined($v = $e->{bot_signature_category});
    $s->{country_code}{$v}++           if defined($v = $e->{country_code});
    $s->{host}{$v}++                   if defined($v = $e->{host});
    if ($v = $e->{anomalies}) {
        my $h = $s->{anomalies};
        $h->{$_}++ for @$v;
    }
    if ($v = $e->{anomaly_categories}) {
        my $h = $s->{anomaly_categories};
        $h->{$_}++ for @$v;
    }
    if (defined($v = $e->{client_ip})) {
        $s->{client_ip}{ ref $v ? _address_words($v) : $v }++;
    }
    if (defined($v = $e->{request_uri})) {
        my $q = index $v, '?';
        $s->{request_path}{ $q < 0 ? $v : substr $v, 0, $q }++;
    }
    if (defined($v = $e->{request_time})) {
        $s->{timeline}{ $v - $v % $s->{unit} }{$actual}++;
        $s->{first_time} = $v if $v < $s->{first_time};
        $s->{last_time}  = $v if $v > $s->{last_time};
    }
    else {
        $s->{without_time}++;
    }
    $self->_bound unless $s->{records} % $self->{check_every};
    return $self;
}

# Keeps every counter and the timeline within their bounds.
sub _bound {
    my ($self) = @_;
    my $s = $self->{state};
    my $max = $self->{max_keys};
    for my $name (@COUNTERS) {
        _compact($s, $name, $max) if keys %{ $s->{$name} } > 2 * $max;
    }
    while (keys %{ $s->{timeline} } > $max && $s->{unit} < 86400) {
        _coarsen($s, $s->{unit} == 60 ? 3600 : 86400);
    }
    return;
}

# A counter past its bound keeps its `max` largest counts: the count of the
# next one is taken from every count (counts that reach 0 go) and added to
# the counter's error.  This is the summary of Misra and Gries: a key's count
# is never more than its true count nor less than that minus the error, every
# key whose true count exceeds the error is still there, and two such
# summaries merge by adding counts and errors and compacting again.
sub _compact {
    my ($s, $name, $max) = @_;
    my $counts = $s->{$name};
    my @sorted = sort { $b <=> $a } values %$counts;
    return if @sorted <= $max;
    my $cut = $sorted[$max];
    for my $k (keys %$counts) {
        delete $counts->{$k} if ($counts->{$k} -= $cut) <= 0;
    }
    $s->{error}{$name} += $cut;
    return;
}

# Regroups the timeline into buckets of `unit` seconds.
sub _coarsen {
    my ($s, $unit) = @_;
    my %coarse;
    _add_buckets(\%coarse, $s->{timeline}, $unit);
    $s->{timeline} = \%coarse;
    $s->{unit} = $unit;
    return;
}

# Adds the counts of the timeline `from` into the timeline `into`, each bucket
# into the one of `unit` seconds that holds its start.
sub _add_buckets {
    my ($into, $from, $unit) = @_;
    while (my ($start, $actions) = each %$from) {
        my $bucket = $into->{ $start - $start % $unit } //= {};
        $bucket->{$_} += $actions->{$_} for keys %$actions;
    }
    return;
}

# The codec leaves an address as a hash of its words when it cannot be a text
# (a word missing, or unknown fields inside); such an address is counted under
# its words, never dropped.
sub _address_words {
    my ($words) = @_;
    return '{' . join(',', map {
        my $w = $words->{$_};
        "$_=" . (ref $w eq 'ARRAY' ? join('/', @$w) : $w // '')
    } sort keys %$words) . '}';
}

sub merge {
    my ($self, $other) = @_;
    croak 'merge needs a quillon_event_log::Report'
        unless ref $other && eval { $other->isa(__PACKAGE__) };
    my ($s, $o) = ($self->{state}, $other->{state});
    $s->{first_time} = $o->{first_time} if $o->{first_time} < $s->{first_time};
    $s->{last_time}  = $o->{last_time}  if $o->{last_time} > $s->{last_time};
    $s->{$_} += $o->{$_} for qw(records without_time);
    for my $name (@COUNTERS) {
        my $into = $s->{$name};
        my $from = $o->{$name};
        $into->{$_} += $from->{$_} for keys %$from;
        $s->{error}{$name} += $o->{error}{$name};
    }
    # Timelines meet at the coarser of the two units.
    _coarsen($s, $o->{unit}) if $o->{unit} > $s->{unit};
    _add_buckets($s->{timeline}, $o->{timeline}, $s->{unit});
    $self->_bound;
    return $self;
}

# ---- partial reports ------------------------------------------------------------

sub partial {
    my ($self) = @_;
    $self->_bound;
    return $JSON->encode({ format => $PARTIAL_FORMAT, version => 0 + $PARTIAL_VERSION,
                           max_keys => $self->{max_keys}, state => $self->{state} }) . "\n";
}

sub from_partial {
    my ($class, $bytes, %opt) = @_;
    my $data = eval { $JSON->decode($bytes) };
    croak 'not a partial report: ' . ($@ =~ s/ at \S+ line \d+\.\n\z//r) unless $data;
    croak 'not a partial report' unless ref $data eq 'HASH' && ($data->{format} // '') eq $PARTIAL_FORMAT;
    my $version = $data->{version} // '';
    croak "partial report of version $version; this is version $PARTIAL_VERSION"
        unless !ref $version && $version =~ /\A[0-9]+\z/ && $version == $PARTIAL_VERSION;
    my $self = $class->new(%opt, max_keys => $data->{max_keys});
    my $s = $self->{state};
    my $in = $data->{state};
    croak 'not a partial report: no state' unless ref $in eq 'HASH';
    # Every figure is checked before it is believed: a partial is a file.
    for my $n (qw(records without_time first_time last_time unit)) {
        croak "partial report: $n is not a number" unless defined $in->{$n} && !ref $in->{$n}
            && $in->{$n} =~ /\A-?[0-9]+\z/;
        $s->{$n} = 0 + $in->{$n};
    }
    croak 'partial report: unit must be 60, 3600 or 86400' unless grep { $s->{unit} == $_ } 60, 3600, 86400;
    for my $name (@COUNTERS) {
        $s->{$name} = _counts($in->{$name}, $name);
        my $e = ref $in->{error} eq 'HASH' ? $in->{error}{$name} : undef;
        croak "partial report: error of $name is not a number" unless defined $e && !ref $e && $e =~ /\A[0-9]+\z/;
        $s->{error}{$name} = 0 + $e;
    }
    croak 'partial report: timeline is not an object' unless ref $in->{timeline} eq 'HASH';
    for my $start (keys %{ $in->{timeline} }) {
        croak 'partial report: timeline bucket is not a time' unless $start =~ /\A[0-9]+\z/;
        $s->{timeline}{$start} = _counts($in->{timeline}{$start}, 'timeline');
    }
    return $self;
}

sub _counts {
    my ($counts, $name) = @_;
    croak "partial report: $name is not an object of counts" unless ref $counts eq 'HASH';
    my %out;
    for (keys %$counts) {
        my $c = $counts->{$_};
        croak "partial report: a count of $name is not a positive number"
            unless defined $c && !ref $c && $c =~ /\A[1-9][0-9]*\z/;
        $out{$_} = 0 + $c;
    }
    return \%out;
}

sub summary {
    my ($self) = @_;
    $self->_bound;
    my $s       = $self->{state};
    my $records = $s->{records};
    my ($first, $last) = $s->{last_time} < 0 ? () : @$s{qw(first_time last_time)};

    my $cva = $s->{configured_vs_actual};
    my @pairs = sort {
        $b->{count} <=> $a->{count} || $a->{configured} cmp $b->{configured} || $a->{actual} cmp $b->{actual}
    } map {
        my ($configured, $actual) = split /\0/, $_, 2;
        { configured => $configured, actual => $actual, count => 0 + $cva->{$_} }
    } keys %$cva;
    $_->{share} = _share($_->{count}, $records) for @pairs;
    my $timeline = $s->{timeline};

    return {
        records => 0 + $records,
        top_n   => $self->{top},
        time    => {
            first        => defined $first ? 0 + $first : undef,
            last         => defined $last ? 0 + $last : undef,
            first_iso    => defined $first ? _iso($first) : undef,
            last_iso     => defined $last ? _iso($last) : undef,
            span_seconds => defined $first ? $last - $first : undef,
            without_time => 0 + $s->{without_time},
        },
        classification           => _share_table($s->{classification}, $records),
        actual_mitigation_action => _share_table($s->{actual_mitigation_action}, $records),
        configured_vs_actual     => \@pairs,
        error => { map { $_ => 0 + $s->{error}{$_} } grep { $s->{error}{$_} } @COUNTERS },
        top => { map { $_->[0] => _top_list($s->{ $_->[0] }, $self->{top}, $s->{error}{ $_->[0] }) } @TOP_LISTS },
        timeline => {
            unit    => 0 + $s->{unit},
            buckets => [
                map {
                    my $actions = $timeline->{$_};
                    my $count = 0;
                    $count += $_ for values %$actions;
                    { start => 0 + $_, count => $count, actions => { map { $_ => 0 + $actions->{$_} } keys %$actions } }
                } sort { $a <=> $b } keys %$timeline
            ],
        },
    };
}

# Counts in rank order: count descending, then key ascending (by code point).
sub _ranked {
    my ($counts) = @_;
    return sort { $counts->{$b} <=> $counts->{$a} || $a cmp $b } keys %$counts;
}

sub _share_table {
    my ($counts, $records) = @_;
    return [ map { { key => $_, count => 0 + $counts->{$_}, share => _share($counts->{$_}, $records) } } _ranked($counts) ];
}

# The top of a counter without sorting all its keys: one pass keeps the best
# `top` in rank order, so a counter of many keys costs no list of them all.
sub _top_list {
    my ($counts, $top, $error) = @_;
    my (@best, $total);
    $total = 0;
    while (my ($k, $c) = each %$counts) {
        $total += $c;
        next if @best == $top && ($c < $best[-1][1] || ($c == $best[-1][1] && $k gt $best[-1][0]));
        my $i = @best;
        $i-- while $i > 0 && ($best[$i - 1][1] < $c || ($best[$i - 1][1] == $c && $best[$i - 1][0] gt $k));
        splice @best, $i, 0, [$k, $c];
        pop @best if @best > $top;
    }
    return {
        items    => [ map { { key => $_->[0], count => 0 + $_->[1] } } @best ],
        distinct => scalar keys %$counts,
        total    => $total,
        exact    => $error ? 0 : 1,
        error    => 0 + ($error // 0),
    };
}

# count / records to 4 decimals, halves rounded up, in integers so that every
# machine prints the same digits.
sub _share {
    my ($count, $records) = @_;
    return 0 unless $records;
    return int((20000 * $count + $records) / (2 * $records)) / 10000;
}

sub _iso { POSIX::strftime('%Y-%m-%dT%H:%M:%SZ', gmtime $_[0]) }

sub as_json {
    my ($self) = @_;
    return $JSON->encode($self->summary) . "\n";
}

sub time_buckets {
    my ($class, $timeline, %opt) = @_;
    my $max = exists $opt{max_rows} ? delete $opt{max_rows} : $TIME_ROWS;
    croak "unknown option \"$_\"" for sort keys %opt;
    croak 'max_rows must be a positive integer'
        unless defined $max && !ref $max && $max =~ /\A[1-9][0-9]*\z/;
    my $width = $class->bucket_width($timeline, $max, @BUCKET_MINUTES);
    my $rows = $class->regroup($timeline, 60 * $width);
    return { width => $width, rows => [ map { { start => $_->{start}, count => $_->{count} } } @$rows ] };
}

# The summary's buckets added up into display buckets of `width` seconds,
# every one from the first to the last (empty ones too), with the counts per
# action added up.  The text form and the HTML page both regroup with it.
sub regroup {
    my ($class, $timeline, $width) = @_;
    my $buckets = $timeline->{buckets} || [];
    return [] unless @$buckets;
    my $first = int($buckets->[0]{start} / $width);
    my $last  = int($buckets->[-1]{start} / $width);
    my @rows = map { { start => ($first + $_) * $width, count => 0, actions => {} } } 0 .. $last - $first;
    for my $bucket (@$buckets) {
        my $row = $rows[ int($bucket->{start} / $width) - $first ];
        $row->{count} += $bucket->{count};
        my $actions = $bucket->{actions} || {};
        $row->{actions}{$_} += $actions->{$_} for keys %$actions;
    }
    return \@rows;
}

# The width in minutes of display buckets for a timeline: the narrowest of
# `widths` (minutes, each dividing a day) that is a multiple of the timeline's
# unit and gives at most `max` buckets from the first request's to the
# last's, or else the fewest whole days that do; the unit when there are no
# buckets.  The text form and the HTML page both choose with it.
sub bucket_width {
    my ($class, $timeline, $max, @widths) = @_;
    my $buckets = $timeline->{buckets};
    my $unit = ($timeline->{unit} || 60) / 60;
    return $unit unless @$buckets;
    my $from = $buckets->[0]{start} / 60;
    my $to   = $buckets->[-1]{start} / 60;
    my $rows = sub { my $w = shift; int($to / $w) - int($from / $w) + 1 };
    my ($width) = grep { $_ % $unit == 0 && $rows->($_) <= $max } @widths;
    return $width if $width;
    # A lower bound on the days that fit; counted up from there.
    my $days = POSIX::ceil(($to - $from + 1) / 1440 / $max);
    $days++ while $rows->(1440 * $days) > $max;
    return 1440 * $days;
}

# A bucket of `seconds` in words: "minute", "5 minutes", "hour", "3 hours",
# "day", "2 days".
sub bucket_name {
    my ($class, $w) = @_;
    my ($n, $unit) = $w % 86400 == 0 ? ($w / 86400, 'day')
                   : $w % 3600 == 0  ? ($w / 3600, 'hour')
                   : $w % 60 == 0    ? ($w / 60, 'minute')
                   :                   ($w, 'second');
    return $n == 1 ? $unit : "$n ${unit}s";
}

sub as_text {
    my ($self, %opt) = @_;
    my $unicode = delete $opt{unicode};
    croak "unknown option \"$_\"" for sort keys %opt;

    my $sum   = $self->summary;
    my $title = 'Event report';
    return "$title\n\nno records\n" unless $sum->{records};

    my $records = $sum->{records};
    my @out = ("$title\n", _records_section($sum));

    push @out, _table('Classification', $sum->{classification}, $records, $unicode);
    push @out, _table('Actual mitigation action', $sum->{actual_mitigation_action}, $records, $unicode);
    push @out, _table('Configured vs actual action',
        [ map { { key => "$_->{configured} -> $_->{actual}", count => $_->{count} } } @{ $sum->{configured_vs_actual} } ],
        $records, $unicode);

    for (@TOP_LISTS) {
        my ($name, $heading) = @$_;
        my $list  = $sum->{top}{$name};
        my $shown = @{ $list->{items} };
        my $title = !$shown            ? $heading
                  : $list->{exact}     ? "$heading ($shown of $list->{distinct})"
                  : "$heading ($shown of more than $list->{distinct}; counts may be low by up to $list->{error})";
        push @out, _table($title, $list->{items}, $records, $unicode);
    }

    my $buckets = __PACKAGE__->time_buckets($sum->{timeline});
    push @out, _table(_bucket_title($buckets->{width}),
        [ map { { key => POSIX::strftime('%Y-%m-%d %H:%M', gmtime $_->{start}), count => $_->{count} } } @{ $buckets->{rows} } ],
        $records, $unicode);

    return join "\n", @out;
}

sub _records_section {
    my ($sum) = @_;
    my $t = $sum->{time};
    my @rows = (
        [ records         => $sum->{records} ],
        [ 'first request' => $t->{first_iso} // $NONE ],
        [ 'last request'  => $t->{last_iso} // $NONE ],
        [ span            => defined $t->{span_seconds} ? _duration($t->{span_seconds}) : $NONE ],
    );
    push @rows, [ 'without time' => $t->{without_time} ] if $t->{without_time};
    return join '', "Records\n", map { sprintf "  %-13s  %s\n", @$_ } @rows;
}

# 3725 seconds read "1h 2m 5s": from the largest unit present down to seconds.
sub _duration {
    my ($secs) = @_;
    my @parts = ([ d => 86400 ], [ h => 3600 ], [ m => 60 ], [ s => 1 ]);
    my @out;
    for (@parts) {
        my ($unit, $size) = @$_;
        my $n = int($secs / $size);
        $secs -= $n * $size;
        push @out, "$n$unit" if $n || @out || $unit eq 's';
    }
    return join ' ', @out;
}

sub _bucket_title { 'Requests per ' . __PACKAGE__->bucket_name(60 * $_[0]) . ' (UTC)' }

# One section: title, then label, count, share of all records and a bar
# scaled to the table's largest count.
sub _table {
    my ($title, $rows, $records, $unicode) = @_;
    return "$title\n  none\n" unless @$rows;

    my @labels = map { _label($_->{key}, $unicode) } @$rows;
    my ($lw, $cw, $max) = (0, 0, 0);
    for my $i (0 .. $#$rows) {
        my $c = $rows->[$i]{count};
        $lw  = length $labels[$i] if length $labels[$i] > $lw;
        $cw  = length "$c"        if length "$c" > $cw;
        $max = $c                 if $c > $max;
    }
    my $text = "$title\n";
    for my $i (0 .. $#$rows) {
        my $c = $rows->[$i]{count};
        my $line = sprintf "  %-*s  %*d  %6s  %s", $lw, $labels[$i], $cw, $c, _percent($c, $records), _bar($c, $max, $unicode);
        $line =~ s/ +\z//;
        $text .= "$line\n";
    }
    return $text;
}

# Labels are shown on one line of a terminal: control characters and the
# codec's escapes of bytes that were not UTF-8 are written as \xHH, the empty
# string as "", and long labels are cut to a fixed width.
sub _label {
    my ($key, $unicode) = @_;
    return '""' if $key eq '';
    (my $label = $key) =~ s/([\x00-\x1f\x7f-\x9f\x{DC80}-\x{DCFF}])/sprintf '\\x%02X', ord($1) & 0xFF/ge;
    return $label if length $label <= $LABEL_WIDTH;
    return $unicode
        ? substr($label, 0, $LABEL_WIDTH - 1) . "\x{2026}"
        : substr($label, 0, $LABEL_WIDTH - 3) . '...';
}

# count / records as a percentage to one decimal, halves rounded up.
sub _percent {
    my ($count, $records) = @_;
    return '0.0%' unless $records;
    my $permille = int((2000 * $count + $records) / (2 * $records));
    return sprintf '%d.%d%%', int($permille / 10), $permille % 10;
}

sub _bar {
    my ($count, $max, $unicode) = @_;
    return '' unless $max;
    if ($unicode) {
        my $eighths = int((16 * $BAR_WIDTH * $count + $max) / (2 * $max));
        return $FULL_BLOCK x int($eighths / 8) . $EIGHTHS[ $eighths % 8 ];
    }
    return '#' x int((2 * $BAR_WIDTH * $count + $max) / (2 * $max));
}

1;

__END__

=head1 NAME

quillon_event_log::Report - counts of event records, as a summary, text tables or JSON

=head1 SYNOPSIS

  use quillon_event_log::Codec;
  use quillon_event_log::Report;

  my $codec  = quillon_event_log::Codec->new(characters => 1, addresses => 'text');
  my $report = quillon_event_log::Report->new(top => 10);
  $report->add($codec->decode($_)) for @records;   # wire bytes of each record

  my $data = $report->summary;                # plain Perl data
  print $report->as_text(unicode => 1);       # a character string: encode it for output
  print $report->as_json;                     # UTF-8 bytes, one line

  $report->merge($other_report);              # add another report's counts

=head1 DESCRIPTION

A report counts event records of L<quillon_event_log::QuillonEventLog> in the
hash form that L<quillon_event_log::Codec> decodes with
C<< characters => 1, addresses => 'text' >>, and tells what the records were
and what was done about them: how many records over which time, how they
were classified, what mitigation was configured and what was actually done,
the most frequent bots, anomalies, countries, hosts, client addresses and
request paths, and the requests per minute.

It reads only these fields of a record: C<classification>,
C<actual_mitigation_action>, C<configured_mitigation_action>, C<bot_name>,
C<bot_signature_category>, C<anomalies>, C<anomaly_categories>,
C<country_code>, C<host>, C<client_ip>, C<request_uri> and C<request_time>.
Other fields are ignored.

All a report holds is plain hashes of counts (and the first and last request
times), so two reports merge by adding their counts, with the same figures as
one report over all the records. The figures come out of one structure,
L</summary>; the text, JSON and HTML forms only render it.

=head2 Bounded memory

A report's memory is bounded whatever the input, including hostile input
with a new client address or path in every record:

=over 4

=item *

Each counter (each share table and each top list) keeps exact counts while
it has at most 40,000 distinct keys (twice C<max_keys>, 20,000 by
default). When it passes that, it keeps the 20,000 largest counts as a
heavy-hitters summary (Misra and Gries): the count of the next key is taken
from every count and added to the counter's I<error>. Every count shown is
then at most the true count and at least the true count minus the error,
every key whose true count exceeds the error is still there, and the error
is at most the counter's total divided by C<max_keys> + 1. Summaries merge by adding
counts and errors. The summary marks such a list C<< exact => 0 >> with its
C<error>, and the text form says "counts may be low by up to N".

=item *

The timeline counts minutes while there are at most C<max_keys> of them
(20,000 minutes, about 14 days, by default), then hours while there are at
most as many hours (about 2.3 years), then days.
Its counts stay exact.

=item *

The record count, the time span and the counts without time are always
exact.

=back

While every counter fits, the figures are exact, and reports merged from
parts are the same as one report over all the records.

=head1 METHODS

=head2 new

  my $report = quillon_event_log::Report->new(top => 10);

An empty report. The option C<top> (a positive integer, 10 by default) is the
length of the top lists; C<max_keys> (20,000 by default) sets the bounds of
L</Bounded memory>: about 100 bytes per key, so a few MB per counter at most
by default.

=head2 add

  $report->add(\%event);

Counts one record. Absent fields (missing keys and C<undef> values) count as
C<(none)> in the share tables (classification and mitigation actions), so
that their shares add up to all the records (a field whose value is the
text C<(none)> counts with them); in the top lists they do not count. An
empty string is a value like any other. Each element of
C<anomalies> and C<anomaly_categories> counts once in its list. The request
path is C<request_uri> up to its first C<?>. A C<client_ip> left as a hash
of words by the codec (an address with a word missing) counts under a text
of its words, C<{ip0=0,ip3=3405803821}> (unknown fields inside it as
C<_unknown=POS:HEX/...>). Returns the report.

=head2 merge

  $report->merge($other);

Adds the counts of another report to this one: afterwards this report gives
exactly the figures of one report over the records of both. The other report
is not changed; C<top> stays this report's. Returns the report.

=head2 partial, from_partial

  my $bytes  = $report->partial;                               # JSON, one line
  my $report = quillon_event_log::Report->from_partial($bytes, top => 10);

A partial report is the report's counts as JSON (UTF-8 bytes ending in a
newline), for another process or machine to merge: C<qel report --partial>
writes one and C<qel report --merge> reads them. C<from_partial> makes a
report from one, checking every figure; C<top> is the new report's own.
Merging reports made from partials gives the same figures as merging the
reports themselves.

=head2 summary

  my $data = $report->summary;

The figures, as a new structure of plain hashes, arrays, numbers and strings
(L</THE SUMMARY>). Changing it does not change the report.

=head2 as_text

  my $text = $report->as_text(unicode => 1);

The summary as aligned tables, as a character string (encode it before
printing it). With C<unicode> true, the bars are drawn with block characters
and long labels end in an ellipsis; otherwise (the default) the text uses
C<#> and C<...> instead (L</THE TEXT FORM>).

=head2 as_json

  my $bytes = $report->as_json;

The summary as JSON: UTF-8 encoded bytes, on one line, keys sorted, ending
in a newline. The same figures give the same bytes; decoding it gives the
summary back.

=head2 time_buckets

  my $b = quillon_event_log::Report->time_buckets($summary->{timeline}, max_rows => 60);
  # { width => 5, rows => [ { start => 1763596800, count => 12 }, ... ] }

Groups the timeline of a summary into buckets for display: the narrowest
bucket width of 1, 2, 5, 10, 15, 30, 60, 120, 180, 360, 720 or 1440
minutes (no finer than the timeline's unit), or else a whole number of days,
that gives at most C<max_rows> buckets (60 by default). C<width> is in minutes, C<start> in unix
seconds; buckets start at multiples of the width since the epoch (so a
5-minute bucket starts at :00, :05, ...) and run from the one holding the
first request to the one holding the last, empty ones included. With no
buckets, C<width> is the unit in minutes and C<rows> empty. The text form uses it, and so can
other renderers.

=head2 bucket_width, bucket_name

  my $minutes = quillon_event_log::Report->bucket_width($summary->{timeline}, $max, @widths);
  my $words   = quillon_event_log::Report->bucket_name(300);    # "5 minutes"

C<bucket_width> chooses the display buckets of a timeline as L</time_buckets>
does, for any list of widths in minutes and any most number of buckets;
C<bucket_name> names a bucket of so many seconds. The HTML page uses both.

=head2 regroup

  my $rows = quillon_event_log::Report->regroup($summary->{timeline}, $width);
  # [ { start => 1763596800, count => 12, actions => { none => 10, block => 2 } }, ... ]

The summary's time buckets added up into buckets of C<$width> seconds (a
multiple of the summary's unit), every one from the first request's to the
last's, empty ones included. L</time_buckets> and the HTML page group with
it.

=head1 THE SUMMARY

  {
    records => 1000,                     # records counted
    top_n   => 10,                       # length of the top lists
    time => {
      first        => 1763596800,        # earliest request_time, unix seconds
      last         => 1763618399,        # latest
      first_iso    => '2026-11-20T00:00:00Z',
      last_iso     => '2026-11-20T05:59:59Z',
      span_seconds => 21599,             # last - first
      without_time => 0,                 # records without request_time
    },
    classification => [                  # every value, ranked; shares add up to 1
      { key => 'Browser', count => 600, share => 0.6 },
      { key => '(none)',  count => 10,  share => 0.01 }, ...
    ],
    actual_mitigation_action => [ ... ], # same form
    configured_vs_actual => [            # every pair, ranked by count,
      { configured => 'block', actual => 'alarm', count => 7, share => 0.007 }, ...
    ],                                   # then configured, then actual
    error => {},                         # counter => error, for counters that are
                                         # no longer exact (see Bounded memory)
    top => {                             # one entry per list
      bot_name => {
        items    => [ { key => 'python-requests', count => 120 }, ... ],  # at most top_n
        distinct => 37,                  # different keys seen (kept, when not exact)
        total    => 400,                 # sum of all their counts
        exact    => 1,                   # 0 when the counts may be low ...
        error    => 0,                   # ... by up to this much
      },
      bot_signature_category => {...}, anomalies => {...}, anomaly_categories => {...},
      country_code => {...}, host => {...}, client_ip => {...}, request_path => {...},
    },
    timeline => {
      unit    => 60,                     # seconds per bucket: 60, 3600 or 86400
      buckets => [                       # buckets with requests, in time order
        { start => 1763596800, count => 3, actions => { block => 2, none => 1 } }, ...
      ],
    },
  }

Ranked means by count, largest first, and equal counts by key in ascending
code-point order, so the order is the same on every machine.

C<share> is C<count / records> rounded to 4 decimals (halves up), as a
number: 0.3333 for a third. The top lists carry no shares: their share of
the records is C<count / records>; C<total - sum of the items' counts> is
what the rest of the keys add up to. For C<anomalies> and
C<anomaly_categories> a record counts once per element, so their total may
exceed the records.

C<timeline> is sparse: buckets without requests are left out. A bucket is
the unix time of its start (a multiple of the unit), with its count and the
count of each actual mitigation action (C<(none)> for records without one).
L</time_buckets> fills the gaps and groups the buckets.

With no records, C<records> is 0, the C<time> values other than
C<without_time> are C<undef> (C<null> in JSON), and every list is empty.
All numbers are numbers, never strings, so JSON shows them unquoted.

=head1 THE TEXT FORM

A title line, then one section per figure: Records (count, first and last
request time, span), Classification, Actual mitigation action, Configured
vs actual action (labels C<configured -E<gt> actual>), the eight top lists
(titled with how many are shown of how many distinct keys), and the
requests over time in buckets from L</time_buckets> (its title names the
bucket width, times in UTC). Sections are separated by an empty line.

Each row of a table is a label (left-aligned, cut to 40 characters), the
count (right-aligned), its share of all records as a percentage with one
decimal (halves rounded up), and a bar scaled so that the table's largest
count gets 30 cells: full blocks and one of the seven eighth blocks in
unicode mode, C<#> rounded to whole cells otherwise. A table with no rows
reads C<none>, and a report without records reads C<no records>. Lines have
no trailing blanks.

Labels show control characters, and the escapes of bytes that were not
UTF-8 (U+DC80 to U+DCFF, see L<quillon_event_log::Codec/CHARACTERS AND BYTES>),
as C<\xHH>, and the empty string as C<"">, so that every row stays on one
line of a terminal. Characters that a terminal shows twice as wide are
counted as one column.

=head1 DIAGNOSTICS

=over 4

=item unknown option "NAME"

C<new>, C<as_text> or C<time_buckets> was given an option it does not know.

=item top must be a positive integer

=item max_rows must be a positive integer

=item max_keys must be a positive integer

=item not a partial report: REASON

=item partial report of version N; this is version 1

=item partial report: WHAT IS WRONG

C<from_partial> was given something else than a partial report, one of
another version, or one whose figures are not counts.

=item merge needs a quillon_event_log::Report

C<merge> was given something else than a report.

=back

=head1 AUTHOR

The quillon_event_log team

=head1 LICENSE

Copyright the quillon_event_log team's company. All rights reserved;
distribution restricted. This module is proprietary and for internal use
only; it is not free software and may not be redistributed.

=cut
