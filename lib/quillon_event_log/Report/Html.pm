package quillon_event_log::Report::Html;

# Renders the summary of a report (quillon_event_log::Report->summary) as one
# self-contained HTML page: inline SVG charts, inline CSS, no script and
# nothing loaded from anywhere, so that the file opens the same way from a
# disk, a mail or an archive. Every figure drawn is also written into the
# markup as data-* attributes, exactly as the summary has it, so that the
# page can be checked by a program as well as read by a person.
#
# The records the summary counts come from clients, attackers among them:
# every text taken from the summary is escaped before it reaches the page, and
# the page forbids itself any script and any load (Content-Security-Policy),
# so that a name that gets through anyway still cannot run or fetch anything.

use strict;
use warnings;

use Carp qw(croak);
use POSIX ();
use quillon_event_log::Report ();

our $VERSION = '1.0';

# The timeline never has more bars than this: about three pixels a bar at
# its width, and few enough for a browser to draw any report quickly.
my $MAX_BARS = 360;

# Display buckets of the timeline, in seconds, narrowest first; past the
# last one the bucket is a whole number of days. Each divides a day, so that
# buckets start at round times (multiples of the width since the epoch).
my @BUCKET_SECONDS = (60, 300, 900, 3600, 3 * 3600, 6 * 3600, 86400);

# Spacing of the time axis' ticks, in seconds, and the most ticks shown.
my @TICK_SECONDS = (60, 120, 300, 600, 900, 1800, 3600, 2 * 3600, 3 * 3600, 6 * 3600, 12 * 3600,
                    86400, 2 * 86400, 7 * 86400, 14 * 86400, 28 * 86400);
my $MAX_TICKS = 8;

# Colours of the actual mitigation actions, in the order they are stacked
# (from the bottom) and listed: what let the request pass first, then the
# checks, then what stopped it. '(none)' is the summary's label of records
# without an action.
my @ACTION_COLOURS = (
    [ 'none'       => '#4e79a7' ],
    [ 'alarm'      => '#edc948' ],
    [ 'rate-limit' => '#76b7b2' ],
    [ 'challenge'  => '#b07aa1' ],
    [ 'captcha'    => '#ff9da7' ],
    [ 'block'      => '#e15759' ],
    [ 'tcp-rst'    => '#9c2a2b' ],
    [ 'honeypot'   => '#f28e2b' ],
    [ '(none)'     => '#bab0ac' ],
);
my %ACTION_RANK = map { $ACTION_COLOURS[$_][0] => $_ } 0 .. $#ACTION_COLOURS;
# Colours of other actions, given in the order of their names.
my @EXTRA_COLOURS = ('#59a14f', '#9d7660', '#499894', '#d37295', '#8cd17d', '#b6992d', '#79706e', '#d4a6c8', '#86bcb6', '#f1ce63');
# The timeline draws at most this many series; past it, the actions with the
# fewest requests share one grey series.
my $MAX_SERIES   = 12;
my $OTHER_COLOUR = '#d7d7d7';

# The bar charts: element id, top list of the summary, title.
my @TOP_CHARTS = (
    [ bots      => bot_name     => 'Top bot names' ],
    [ anomalies => anomalies    => 'Top anomalies' ],
    [ countries => country_code => 'Top countries' ],
    [ hosts     => host         => 'Top hosts' ],
);
# Share tables (every value counted) are drawn down to this many rows; the
# rest are summed in one line below the chart.
my $MAX_SHARE_ROWS = 20;

# Longest label drawn beside a bar (the full text is in its tooltip).
my $LABEL_CHARS = 40;

# Geometry, in SVG user units (CSS pixels at full size).
my $WIDTH     = 1200;
my $BAR_ROW   = 22;     # height of one row of a bar chart
my $LABEL_W   = 330;    # label column of a bar chart
my $COUNT_W   = 150;    # room right of the longest bar for its count

my $CSS = <<'CSS';
body { font: 14px/1.4 "DejaVu Sans", Verdana, Arial, sans-serif; color: #222; background: #fff;
       margin: 24px; max-width: 1248px; }
h1 { font-size: 22px; margin: 0 0 12px; }
h2 { font-size: 17px; margin: 28px 0 6px; }
dl.overview { display: grid; grid-template-columns: max-content auto; gap: 2px 16px; margin: 0; }
dl.overview dt { color: #555; }
dl.overview dd { margin: 0; font-variant-numeric: tabular-nums; }
figure { margin: 0; }
figcaption { color: #444; margin: 2px 0 6px; }
.note { color: #8a4b00; }
svg { display: block; max-width: 100%; height: auto; }
svg text { font: 12px "DejaVu Sans", Verdana, Arial, sans-serif; fill: #222; }
svg .axis { stroke: #555; stroke-width: 1; }
svg .grid { stroke: #e3e3e3; stroke-width: 1; }
svg .muted { fill: #777; }
table { border-collapse: collapse; font-variant-numeric: tabular-nums; }
th, td { padding: 2px 12px 2px 0; text-align: left; }
td.n, th.n { text-align: right; }
tr + tr td { border-top: 1px solid #eee; }
CSS

sub render {
    my ($class, $sum, %opt) = @_;
    my $title = exists $opt{title} ? delete $opt{title} : 'Event report';
    croak "unknown option \"$_\"" for sort keys %opt;
    croak 'render needs a summary (a hash reference)' unless ref $sum eq 'HASH';
    croak 'title must be a string' unless defined $title && !ref $title;

    my $records = $sum->{records} // 0;
    my @body = ('<h1>', _text($title), "</h1>\n", _overview($sum));
    if ($records) {
        push @body, _timeline($sum), _actions_chart($sum),
            _share_chart($sum, 'classification', classification => 'Classification');
        push @body, _top_chart($sum, @$_) for @TOP_CHARTS;
        push @body, _address_table($sum);
    }
    else {
        push @body, qq{<p id="no-records">no records</p>\n};
    }

    return join '',
        "<!DOCTYPE html>\n",
        qq{<html lang="en">\n<head>\n<meta charset="utf-8">\n},
        # Nothing to load and nothing to run: the page needs only its own CSS.
        qq{<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'">\n},
        qq{<meta name="viewport" content="width=device-width, initial-scale=1">\n},
        '<title>', _text($title), "</title>\n",
        "<style>\n$CSS</style>\n</head>\n<body>\n",
        @body,
        "</body>\n</html>\n";
}

# ---- text ---------------------------------------------------------------------

# A key as it is shown: control characters, the codec's escapes of bytes that
# were not UTF-8 (U+DC80 to U+DCFF) as \xHH, like the text form; any other
# surrogate or noncharacter, which a page cannot carry, as \x{HHHH}; the
# empty string as "".
sub label {
    my ($class, $key) = @_;
    return '""' if $key eq '';
    (my $label = $key) =~ s{([\x00-\x1f\x7f-\x9f\x{D800}-\x{DFFF}\x{FDD0}-\x{FDEF}\x{FFFE}\x{FFFF}])}{
        my $c = ord $1;
        $c <= 0x9F || ($c >= 0xDC80 && $c <= 0xDCFF) ? sprintf('\\x%02X', $c & 0xFF) : sprintf('\\x{%04X}', $c)
    }ge;
    return $label;
}

# Escapes for element content and for attribute values (always quoted with ").
sub _text {
    my ($s) = @_;
    $s =~ s/&/&amp;/g;
    $s =~ s/</&lt;/g;
    $s =~ s/>/&gt;/g;
    $s =~ s/"/&quot;/g;
    $s =~ s/'/&#39;/g;
    return $s;
}

# A key for the page: shown (label) and escaped.
sub _key { _text(__PACKAGE__->label($_[0])) }

# The visible label of a bar: cut to a fixed length.
sub _short {
    my ($key) = @_;
    my $label = __PACKAGE__->label($key);
    $label = substr($label, 0, $LABEL_CHARS - 1) . "\x{2026}" if length $label > $LABEL_CHARS;
    return _text($label);
}

# Percentages, times and spans read as in the text form: the report's own.
*_percent  = \&quillon_event_log::Report::_percent;
*_iso      = \&quillon_event_log::Report::_iso;
*_duration = \&quillon_event_log::Report::_duration;

# Coordinates with at most two decimals, without trailing zeros.
sub _n {
    my $s = sprintf '%.2f', $_[0];
    $s =~ s/\.?0+\z// if $s =~ /\./;
    return $s;
}

# A note for a list whose counts are lower bounds.
sub _error_note {
    my ($error) = @_;
    return '' unless $error;
    return qq{ <span class="note" data-error="$error">counts may be low by up to $error</span>};
}

# ---- the overview ---------------------------------------------------------------

sub _overview {
    my ($sum) = @_;
    my $t = $sum->{time} // {};
    my @rows = ([ records => 'records', $sum->{records} // 0, qq{ data-count="} . ($sum->{records} // 0) . '"' ]);
    if (defined $t->{first}) {
        push @rows,
            [ 'first-request', 'first request', _iso($t->{first}), qq{ data-time="$t->{first}"} ],
            [ 'last-request',  'last request',  _iso($t->{last}),  qq{ data-time="$t->{last}"} ],
            [ span => 'span', _duration($t->{last} - $t->{first}), ' data-seconds="' . ($t->{last} - $t->{first}) . '"' ];
    }
    else {
        push @rows, [ span => 'span', '(none)', '' ];
    }
    push @rows, [ 'without-time', 'without time', $t->{without_time}, qq{ data-count="$t->{without_time}"} ]
        if $t->{without_time};
    return qq{<dl class="overview">\n},
        (map { qq{<dt>$_->[1]</dt><dd id="$_->[0]"$_->[3]>$_->[2]</dd>\n} } @rows),
        "</dl>\n";
}

# ---- the timeline -----------------------------------------------------------------

# The display bucket of a timeline, in seconds: the narrowest of
# @BUCKET_SECONDS that is a multiple of the summary's unit and gives at most
# $MAX_BARS bars, or else the fewest whole days that do (the report's own
# choice, with the page's widths).
sub bucket_seconds {
    my ($class, $timeline) = @_;
    return 60 * quillon_event_log::Report->bucket_width($timeline, $MAX_BARS, map { $_ / 60 } @BUCKET_SECONDS);
}

# "minute", "5 minutes", "hour", "3 hours", "day", "2 days".
sub bucket_name { shift; quillon_event_log::Report->bucket_name(@_) }

# The summary's buckets added up into display buckets of `width` seconds
# (the report's own regrouping).
sub regroup { shift; quillon_event_log::Report->regroup(@_) }

# The series of the timeline, bottom first: [ action, colour ] for each
# action drawn, and the actions that share the grey series, if any.
sub _series {
    my ($rows) = @_;
    my %total;
    for my $row (@$rows) {
        $total{$_} += $row->{actions}{$_} for keys %{ $row->{actions} };
    }
    my @actions = keys %total;
    my @others;
    if (@actions > $MAX_SERIES) {
        @actions = sort { $total{$b} <=> $total{$a} || $a cmp $b } @actions;
        @others = splice @actions, $MAX_SERIES - 1;
    }
    @actions = sort {
        ($ACTION_RANK{$a} // @ACTION_COLOURS) <=> ($ACTION_RANK{$b} // @ACTION_COLOURS) || $a cmp $b
    } @actions;
    my $extra = 0;
    my @series = map {
        [ $_, exists $ACTION_RANK{$_} ? $ACTION_COLOURS[ $ACTION_RANK{$_} ][1]
                                      : $EXTRA_COLOURS[ $extra++ % @EXTRA_COLOURS ] ]
    } @actions;
    return (\@series, { map { $_ => 1 } @others }, \%total);
}

# The colour of each action drawn, for the actions chart.
sub _action_colours {
    my ($rows) = @_;
    my ($series) = _series($rows);
    return { map { $_->[0] => $_->[1] } @$series };
}

# A round step for an axis from 0 to `max` with at most `ticks` steps.
sub _step {
    my ($max, $ticks) = @_;
    my $mag = 1;
    while (1) {
        for my $m (1, 2, 5) {
            return $m * $mag if $m * $mag * $ticks >= $max;
        }
        $mag *= 10;
    }
}

sub _timeline {
    my ($sum) = @_;
    my $timeline = $sum->{timeline} // { unit => 60, buckets => [] };
    my $width = __PACKAGE__->bucket_seconds($timeline);
    my $per   = __PACKAGE__->bucket_name($width);
    my $rows  = __PACKAGE__->regroup($timeline, $width);
    my $unit  = $timeline->{unit} || 60;
    my $timed = 0;
    $timed += $_->{count} for @$rows;

    my @caption = (qq{<span class="bucket">requests per $per (UTC)</span>, $timed requests in } . scalar(@$rows)
        . ' bucket' . (@$rows == 1 ? '' : 's'));
    push @caption, 'the report counted requests per ' . __PACKAGE__->bucket_name($unit) if $unit > 60;
    my $without = $sum->{time}{without_time} // 0;
    push @caption, "$without records without request_time are not shown" if $without;
    my $head = qq{<h2>Requests per $per</h2>\n<figure id="timeline" data-bucket-seconds="$width" data-unit-seconds="$unit" data-count="$timed">\n}
        . '<figcaption>' . join('; ', @caption) . "</figcaption>\n";
    return $head, qq{<p class="muted">no request times</p>\n</figure>\n} unless @$rows;

    my ($series, $others, $total) = _series($rows);

    # Legend: one swatch per series, wrapped into rows.
    my @legend;
    my ($lx, $ly) = (0, 0);
    my @items = ((map { [ $_->[1], __PACKAGE__->label($_->[0]), $total->{ $_->[0] }, qq{ data-action="} . _key($_->[0]) . '"' ] } @$series),
                 (%$others ? [ $OTHER_COLOUR, scalar(keys %$others) . ' other actions',
                               do { my $n = 0; $n += $total->{$_} for keys %$others; $n }, ' data-others="' . scalar(keys %$others) . '"' ] : ()));
    for my $item (@items) {
        my ($colour, $label, $count, $attr) = @$item;
        $label = substr($label, 0, $LABEL_CHARS - 1) . "\x{2026}" if length $label > $LABEL_CHARS;
        my $w = 24 + 7 * length("$label ($count)") + 18;
        ($lx, $ly) = (0, $ly + 20) if $lx && $lx + $w > $WIDTH - 80;
        push @legend, sprintf qq{<g class="legend-item"%s data-count="%s" transform="translate(%s,%s)"><rect class="swatch" width="14" height="14" fill="%s"></rect><text x="20" y="12">%s (%s)</text></g>\n},
            $attr, $count, _n(70 + $lx), _n($ly), $colour, _text($label), $count;
        $lx += $w;
    }

    my ($top, $left, $right, $bottom) = (20 + $ly + 20 + 10, 70, 20, 56);
    my $height = $top + 300 + $bottom;
    my ($pw, $ph) = ($WIDTH - $left - $right, 300);
    my $max = 0;
    for (@$rows) { $max = $_->{count} if $_->{count} > $max }
    my $step = _step($max, 5);
    my $ymax = $step * POSIX::ceil($max / $step);
    my $slot = $pw / @$rows;
    my $bar  = $slot >= 3 ? $slot * 0.85 : $slot;
    my $y = sub { $top + $ph - $ph * $_[0] / $ymax };

    my @svg = (sprintf qq{<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" viewBox="0 0 %d %d" role="img" aria-label="requests per %s">\n},
                       $WIDTH, $height, $WIDTH, $height, $per);
    push @svg, qq{<g class="legend">\n}, @legend, "</g>\n";

    # Count axis: grid lines and labels at each step.
    push @svg, qq{<g class="count-axis">\n};
    for (my $v = 0; $v <= $ymax; $v += $step) {
        my $yy = _n($y->($v));
        push @svg, sprintf qq{<line class="grid" x1="%s" x2="%s" y1="%s" y2="%s"></line><text x="%s" y="%s" text-anchor="end" data-tick="%s">%s</text>\n},
            $left, $left + $pw, $yy, $yy, $left - 6, _n($y->($v) + 4), $v, $v;
    }
    push @svg, sprintf qq{<text class="muted" transform="translate(14,%s) rotate(-90)" text-anchor="middle">requests per %s</text>\n</g>\n},
        _n($top + $ph / 2), $per;

    # Bars: one group per display bucket, one rect per action, stacked.
    push @svg, qq{<g class="bars">\n};
    for my $i (0 .. $#$rows) {
        my $row = $rows->[$i];
        next unless $row->{count};
        my $x = _n($left + $i * $slot + ($slot - $bar) / 2);
        my $when = _iso($row->{start});
        push @svg, qq{<g class="bucket" data-start="$row->{start}" data-count="$row->{count}"><title>$when: $row->{count} requests</title>\n};
        my $base = 0;
        my @stack = map { [ $_->[0], $_->[1], $row->{actions}{ $_->[0] } // 0, qq{ data-action="} . _key($_->[0]) . '"', _text(__PACKAGE__->label($_->[0])) ] } @$series;
        if (%$others) {
            my $n = 0;
            $n += $row->{actions}{$_} // 0 for keys %$others;
            push @stack, [ undef, $OTHER_COLOUR, $n, ' data-others="' . scalar(keys %$others) . '"', 'other actions' ];
        }
        for my $s (@stack) {
            my (undef, $colour, $n, $attr, $name) = @$s;
            next unless $n;
            my ($y0, $y1) = ($y->($base), $y->($base + $n));
            push @svg, sprintf qq{<rect class="segment"%s data-start="%s" data-count="%s" x="%s" y="%s" width="%s" height="%s" fill="%s"><title>%s %s: %s</title></rect>\n},
                $attr, $row->{start}, $n, $x, _n($y1), _n($bar), _n($y0 - $y1), $colour, $when, $name, $n;
            $base += $n;
        }
        push @svg, "</g>\n";
    }
    push @svg, "</g>\n";

    # Time axis: ticks at round times, the date written under the first tick
    # and wherever it changes.
    my ($from, $to) = ($rows->[0]{start}, $rows->[-1]{start} + $width);
    my $ticks = sub { my $t = shift; int($to / $t) - POSIX::ceil($from / $t) + 1 };
    my ($tick) = grep { $_ % $width == 0 && $ticks->($_) <= $MAX_TICKS } @TICK_SECONDS;
    if (!$tick) {
        my $k = 1;
        $k++ while $ticks->($width * $k) > $MAX_TICKS;
        $tick = $width * $k;
    }
    my $xt = sub { $left + $pw * ($_[0] - $from) / ($to - $from) };
    push @svg, qq{<g class="time-axis">\n},
        sprintf(qq{<line class="axis" x1="%s" x2="%s" y1="%s" y2="%s"></line>\n}, $left, $left + $pw, $top + $ph, $top + $ph);
    my $last_date = '';
    for (my $t = POSIX::ceil($from / $tick) * $tick; $t <= $to; $t += $tick) {
        my $xx = _n($xt->($t));
        my $date = POSIX::strftime('%Y-%m-%d', gmtime $t);
        my @lines = $tick % 86400 ? (POSIX::strftime('%H:%M', gmtime $t), $date ne $last_date ? $date : ()) : ($date);
        $last_date = $date;
        push @svg, sprintf qq{<line class="axis" x1="%s" x2="%s" y1="%s" y2="%s"></line>}, $xx, $xx, $top + $ph, $top + $ph + 5;
        push @svg, sprintf qq{<text x="%s" y="%s" text-anchor="middle" data-time="%s">%s</text>}, $xx, $top + $ph + 18, $t,
            join '', map { sprintf '<tspan x="%s" dy="%s">%s</tspan>', $xx, $_ ? 14 : 0, $lines[$_] } 0 .. $#lines;
        push @svg, "\n";
    }
    push @svg, sprintf qq{<text class="muted" x="%s" y="%s" text-anchor="middle">time (UTC)</text>\n</g>\n},
        _n($left + $pw / 2), $height - 4;
    push @svg, "</svg>\n";

    return $head, @svg, "</figure>\n";
}

# ---- bar charts -------------------------------------------------------------------

# A horizontal bar chart: rows of { key, count }, scaled to the largest.
# `colour` is a colour or a hash of colours by key.
sub _bars {
    my ($id, $rows, $records, $colour) = @_;
    my $max = 0;
    for (@$rows) { $max = $_->{count} if $_->{count} > $max }
    my $height = @$rows * $BAR_ROW + 4;
    my $bw = $WIDTH - $LABEL_W - $COUNT_W;
    my @svg = (sprintf qq{<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" viewBox="0 0 %d %d" role="img" aria-labelledby="%s-title">\n},
                       $WIDTH, $height, $WIDTH, $height, $id);
    for my $i (0 .. $#$rows) {
        my ($key, $count) = @{ $rows->[$i] }{qw(key count)};
        my $y = 2 + $i * $BAR_ROW;
        my $w = $max ? $bw * $count / $max : 0;
        my $fill = ref $colour ? $colour->{$key} // $OTHER_COLOUR : $colour;
        my $share = _percent($count, $records);
        my $shown = _text(__PACKAGE__->label($key));
        push @svg, sprintf qq{<g class="row"><text x="%s" y="%s" text-anchor="end">%s</text>}
                         . qq{<rect class="bar" data-key="%s" data-count="%s" x="%s" y="%s" width="%s" height="%s" fill="%s"><title>%s: %s (%s)</title></rect>}
                         . qq{<text x="%s" y="%s">%s (%s)</text></g>\n},
            $LABEL_W - 8, $y + 15, _short($key),
            _key($key), $count, $LABEL_W, $y + 2, _n($w < 1 && $count ? 1 : $w), $BAR_ROW - 4, $fill, $shown, $count, $share,
            _n($LABEL_W + ($w < 1 ? 1 : $w) + 6), $y + 15, $count, $share;
    }
    push @svg, "</svg>\n";
    return @svg;
}

# A chart of a share table (every value counted; the longest are summed).
sub _share_chart {
    my ($sum, $id, $name, $title, $colour) = @_;
    my $table = $sum->{$name} // [];
    my @rows = @$table;
    my @rest = @rows > $MAX_SHARE_ROWS ? splice(@rows, $MAX_SHARE_ROWS) : ();
    my $caption = scalar(@$table) . ' value' . (@$table == 1 ? '' : 's') . _error_note(($sum->{error} // {})->{$name});
    my @out = (qq{<h2 id="$id-title">$title</h2>\n<figure id="$id" data-list="$name">\n<figcaption>$caption</figcaption>\n});
    push @out, @rows ? _bars($id, \@rows, $sum->{records}, $colour // '#4e79a7') : qq{<p class="muted">none</p>\n};
    if (@rest) {
        my $n = 0;
        $n += $_->{count} for @rest;
        push @out, sprintf qq{<p class="rest" data-rest-keys="%d" data-rest-count="%s">and %d more values with %s records (%s)</p>\n},
            scalar @rest, $n, scalar @rest, $n, _percent($n, $sum->{records});
    }
    return @out, "</figure>\n";
}

sub _actions_chart {
    my ($sum) = @_;
    my $timeline = $sum->{timeline} // { unit => 60, buckets => [] };
    my $colours = _action_colours(__PACKAGE__->regroup($timeline, $timeline->{unit} || 60));
    # Actions seen only in records without a time still get a colour of their
    # own, after the others'.
    my @missing = sort grep { !exists $colours->{$_} } map { $_->{key} } @{ $sum->{actual_mitigation_action} // [] };
    my $extra = grep { !exists $ACTION_RANK{$_} } keys %$colours;
    for (@missing) {
        $colours->{$_} = exists $ACTION_RANK{$_} ? $ACTION_COLOURS[ $ACTION_RANK{$_} ][1] : $EXTRA_COLOURS[ $extra++ % @EXTRA_COLOURS ];
    }
    return _share_chart($sum, 'actions', 'actual_mitigation_action', 'Actual mitigation action', $colours);
}

# A chart of a top list, with how many of how many keys it shows.
sub _top_chart {
    my ($sum, $id, $name, $title) = @_;
    my $list = $sum->{top}{$name} // { items => [], distinct => 0, total => 0 };
    my @items = @{ $list->{items} // [] };
    my $caption = @items ? scalar(@items) . " of $list->{distinct}" : 'none';
    my $error = $list->{exact} // 1 ? 0 : $list->{error};
    my @out = (qq{<h2 id="$id-title">$title</h2>\n<figure id="$id" data-list="$name" data-distinct="$list->{distinct}" data-total="$list->{total}"}
               . ($error ? qq{ data-error="$error"} : '') . ">\n<figcaption>$caption" . _error_note($error) . "</figcaption>\n");
    push @out, _bars($id, \@items, $sum->{records}, '#59a14f') if @items;
    my $shown = 0;
    $shown += $_->{count} for @items;
    if ($list->{distinct} > @items) {
        my $n = $list->{total} - $shown;
        my $keys = $list->{distinct} - @items;
        push @out, sprintf qq{<p class="rest" data-rest-keys="%d" data-rest-count="%s">and %d more, %s in all</p>\n},
            $keys, $n, $keys, $n;
    }
    return @out, "</figure>\n";
}

# ---- the table of client addresses ----------------------------------------------

sub _address_table {
    my ($sum) = @_;
    my $list = $sum->{top}{client_ip} // { items => [], distinct => 0, total => 0 };
    my @items = @{ $list->{items} // [] };
    my $error = $list->{exact} // 1 ? 0 : $list->{error};
    my @out = (qq{<h2>Top client addresses</h2>\n<p>}
               . (@items ? scalar(@items) . " of $list->{distinct}" : 'none') . _error_note($error) . "</p>\n");
    return @out unless @items;
    push @out, qq{<table id="client-addresses" data-list="client_ip" data-distinct="$list->{distinct}" data-total="$list->{total}"}
        . ($error ? qq{ data-error="$error"} : '') . ">\n",
        qq{<thead><tr><th class="n">#</th><th>address</th><th class="n">requests</th><th class="n">share</th></tr></thead>\n<tbody>\n};
    my $rank = 0;
    for my $item (@items) {
        $rank++;
        push @out, sprintf qq{<tr data-key="%s" data-count="%s"><td class="n">%d</td><td>%s</td><td class="n">%s</td><td class="n">%s</td></tr>\n},
            _key($item->{key}), $item->{count}, $rank, _key($item->{key}), $item->{count}, _percent($item->{count}, $sum->{records});
    }
    return @out, "</tbody>\n</table>\n";
}

1;

__END__

=head1 NAME

quillon_event_log::Report::Html - a report's summary as one self-contained HTML page

=head1 SYNOPSIS

  use Encode ();
  use quillon_event_log::Report;
  use quillon_event_log::Report::Html;

  my $report = quillon_event_log::Report->new;
  $report->add($_) for @events;

  my $html = quillon_event_log::Report::Html->render($report->summary, title => 'Event report');
  print {$fh} Encode::encode('UTF-8', $html);    # a character string: encode it

=head1 DESCRIPTION

Draws the summary of a L<quillon_event_log::Report> (its L<summary|quillon_event_log::Report/summary>,
the only input) as an HTML page that needs nothing else: the charts are
inline SVG, the style sheet is inline, there is no script, and the page's
Content-Security-Policy forbids it any script and any load, so it opens
from a file, offline, the same everywhere.

The page holds, in this order:

=over 4

=item *

the number of records, the first and last request time (UTC) and the span
between them, and how many records had no request time;

=item *

the requests over time (C<id="timeline">), stacked by actual mitigation
action, with a legend (each action with its number of requests), a count
axis and a time axis in UTC; its caption and heading name the bucket
("requests per 5 minutes (UTC)"), see L</bucket_seconds>;

=item *

bar charts of the actual mitigation action (C<id="actions">, in the
timeline's colours) and of the classification (C<id="classification">),
each value with its count and share of the records (the first 20 values;
the rest are summed below the chart);

=item *

bar charts of the top bot names (C<id="bots">), anomalies
(C<id="anomalies">), countries (C<id="countries">) and hosts
(C<id="hosts">), each with how many keys it shows of how many, and what the
other keys add up to;

=item *

a table of the top client addresses (C<id="client-addresses">).

=back

Where a list's counts are not exact (C<< exact => 0 >> in the summary), its
caption says "counts may be low by up to I<error>".

A summary without records gives a page that says "no records".

=head2 Figures in the markup

Every figure is in the page as the summary has it, for programs to check:

=over 4

=item *

C<< <dd id="records" data-count> >>, C<< <dd id="first-request" data-time> >>,
C<< <dd id="last-request" data-time> >>, C<< <dd id="span" data-seconds> >>,
C<< <dd id="without-time" data-count> >> (only when there are such records);

=item *

the timeline C<< <figure id="timeline" data-bucket-seconds data-unit-seconds data-count> >>
(C<data-count> is the number of requests with a time); one
C<< <g class="bucket" data-start data-count> >> per non-empty display bucket
and in it one C<< <rect class="segment" data-action data-start data-count> >> per
action with requests in it (a segment of the grey series of other actions
has C<data-others>, the number of actions in it, instead of C<data-action>);
legend entries C<< <g class="legend-item" data-action data-count> >>;

=item *

each bar C<< <rect class="bar" data-key data-count> >> in its chart's
C<< <figure id data-list> >> (C<data-list> is the summary's name of the
list; for top lists also C<data-distinct>, C<data-total> and, when not
exact, C<data-error>); what is not drawn as
C<< <p class="rest" data-rest-keys data-rest-count> >>;

=item *

each row of the client address table C<< <tr data-key data-count> >>.

=back

Each bar and segment has a C<< <title> >> (its tooltip) with its key and
count. Keys are shown as L</label> gives them, in C<data-key> and
C<data-action> too.

=head1 METHODS

=head2 render

  my $html = quillon_event_log::Report::Html->render($summary, title => 'Event report');

The page, as a character string (encode it, as UTF-8: the page says it is
UTF-8). C<title> (default C<Event report>) is the page's title and heading.
The same summary gives the same page.

=head2 bucket_seconds

  my $width = quillon_event_log::Report::Html->bucket_seconds($summary->{timeline});

The width of the timeline's display buckets, in seconds: the narrowest of
1 minute, 5 minutes, 15 minutes, 1 hour, 3 hours, 6 hours and 1 day that is
a multiple of the summary's C<unit> and needs at most 360 buckets from the
bucket of the first request to that of the last, or else the fewest whole
days that do. Buckets start at multiples of their width since the epoch, so
at round times in UTC. Six hours of minutes fit, a day gets 5-minute
buckets, ten days hours, thirty days 3-hour buckets.

=head2 bucket_name

  quillon_event_log::Report::Html->bucket_name(300);    # "5 minutes"

A bucket width in words, as the page writes it.

=head2 regroup

  my $rows = quillon_event_log::Report::Html->regroup($summary->{timeline}, $width);
  # [ { start => 1763596800, count => 12, actions => { none => 10, block => 2 } }, ... ]

The summary's time buckets added up into buckets of C<$width> seconds (a
multiple of the summary's unit), every one from the first request's to the
last's, empty ones included: L<quillon_event_log::Report/regroup>.

=head2 label

  quillon_event_log::Report::Html->label("a\tb");    # 'a\x09b'

A key as the page shows it: control characters (U+0000 to U+001F, U+007F
to U+009F) and the codec's escapes of bytes that were not UTF-8 (U+DC80 to
U+DCFF, see L<quillon_event_log::Codec/CHARACTERS AND BYTES>) as C<\xHH>,
other surrogates and noncharacters as C<\x{HHHH}>, the empty string as
C<"">; everything else as it is (and then escaped for HTML).

=head1 DIAGNOSTICS

=over 4

=item unknown option "NAME"

=item render needs a summary (a hash reference)

=item title must be a string

=back

=head1 AUTHOR

The quillon_event_log team

=head1 LICENSE

Copyright the quillon_event_log team's company. All rights reserved;
distribution restricted. This module is proprietary and for internal use
only; it is not free software and may not be redistributed.

=cut
