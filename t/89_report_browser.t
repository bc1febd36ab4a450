# quillon_event_log::Report::Html in a real browser: Debian's chromium,
# headless, opens the page from a file, takes a screenshot and dumps the DOM
# it built. The charts are there with the summary's figures, hostile names
# stayed text, the page ran no script and logged nothing, and its own
# Content-Security-Policy stops a script and a load slipped into it.
# Skipped when no chromium is installed (Debian package chromium).
use strict;
use warnings;
use utf8;
use Test::More;
use lib 't/lib';
use QelDom qw(parse_page elements by_id tagged text_of);
use Encode ();
use File::Temp ();
use POSIX ();

use quillon_event_log::Report;
use quillon_event_log::Report::Html;
use quillon_event_log::Sample;

my ($CHROMIUM) = grep { -x } map { my $d = $_; map { "$d/$_" } qw(chromium chromium-browser) } split /:/, $ENV{PATH} // '';
plan skip_all => 'no chromium installed (Debian package chromium): the page is not checked in a browser' unless $CHROMIUM;
plan skip_all => 'HTML::Parser is not installed (Debian package libhtml-parser-perl)' unless eval { require HTML::Parser; 1 };
my ($TIMEOUT) = grep { -x } map { "$_/timeout" } split /:/, $ENV{PATH};
plan skip_all => 'timeout(1) is not installed: a hanging browser could stall the suite' unless $TIMEOUT;

my $HTML = 'quillon_event_log::Report::Html';
my $T0   = 1763596800;    # 2025-11-20T00:00:00Z
my $dir  = File::Temp->newdir;

# Runs chromium headless on a file, at most 60 seconds (then it is killed):
# returns its exit status, standard output and standard error.
sub chromium {
    my ($file, @args) = @_;
    my ($out, $err) = ("$dir/out", "$dir/err");
    my $pid = fork // die "fork: $!";
    if (!$pid) {
        open STDIN, '<', '/dev/null';
        open STDOUT, '>', $out or die "$out: $!";
        open STDERR, '>', $err or die "$err: $!";
        # The browser is not ours to check: a sanitized run's preloads
        # (tools/sanitize.sh) stay out of it.
        delete @ENV{qw(LD_PRELOAD ASAN_OPTIONS UBSAN_OPTIONS)};
        exec $TIMEOUT, '-k', 5, 60, $CHROMIUM, '--headless', '--no-sandbox', '--disable-gpu',
            "--user-data-dir=$dir/profile", '--no-first-run', '--disable-background-networking',
            '--disable-component-update', '--enable-logging=stderr', '--v=0', @args, "file://$file";
        die "exec $CHROMIUM: $!";
    }
    waitpid $pid, 0;
    my $status = $?;
    my $slurp = sub { open my $fh, '<:raw', $_[0] or return ''; local $/; scalar(<$fh>) // '' };
    return ($status, $slurp->($out), $slurp->($err));
}

sub write_page {
    my ($name, $html) = @_;
    my $file = "$dir/$name";
    open my $fh, '>:raw', $file or die "$file: $!";
    print {$fh} Encode::encode('UTF-8', $html);
    close $fh or die "$file: $!";
    return $file;
}

# What the page logged to the console (chromium writes it to stderr with
# --enable-logging): its lines, and every script error.
sub console { grep { /:CONSOLE[:(]|Uncaught/ } split /\n/, $_[0] }

# ---- the page: sample records and hostile names --------------------------------

my @hostile = ('<script>alert(1)</script>', '"><img src=x onerror=alert(1)>');
my $report = quillon_event_log::Report->new;
my $gen = quillon_event_log::Sample->new(seed => 7, count => 3000);
while (my $e = $gen->next) { $report->add($e) }
for my $i (0 .. 399) {
    $report->add({ bot_name => $hostile[ $i % 2 ], host => $hostile[ $i % 2 ], actual_mitigation_action => $hostile[1],
                   client_ip => $hostile[0], request_time => $T0 + 30 * $i });
}
my $sum = $report->summary;
my $html = $HTML->render($sum);
my $file = write_page('report.html', $html);

# ---- the screenshot ----------------------------------------------------------------

{
    my $png = "$dir/report.png";
    my ($status, undef, $err) = chromium($file, "--screenshot=$png", '--window-size=1280,2000');
    is $status, 0, 'screenshot: chromium exits with 0' or diag $err;
    ok -s $png, 'screenshot: the file is there';
    open my $fh, '<:raw', $png or die "$png: $!";
    read $fh, my $head, 24;
    is substr($head, 0, 8), "\x89PNG\r\n\x1A\n", 'screenshot: a PNG';
    is_deeply [ unpack 'NN', substr($head, 16, 8) ], [ 1280, 2000 ], 'screenshot: 1280 by 2000 pixels';
    cmp_ok -s $png, '>', 20_000, 'screenshot: not blank (' . (-s $png) . ' bytes)';
    is_deeply [ console($err) ], [], 'screenshot: nothing on the console';
}

# ---- the DOM ----------------------------------------------------------------------

{
    my ($status, $dom, $err) = chromium($file, '--dump-dom');
    is $status, 0, 'dump-dom: chromium exits with 0' or diag $err;
    is_deeply [ console($err) ], [], 'dump-dom: no script error, nothing on the console';
    $dom = Encode::decode('UTF-8', $dom);
    my $root = parse_page($dom);

    is scalar(tagged($root, 'script')), 0, 'no script element';
    is scalar(elements($root, sub { $_[0]{tag} =~ /\A(?:img|iframe|object|embed)\z/ })), 0, 'no img, iframe, object or embed';
    is scalar(elements($root, sub { grep { /\Aon/i } keys %{ $_[0]{attr} } })), 0, 'no event handler attribute';

    ok by_id($root, $_), "chart $_ is there" for qw(timeline actions classification bots anomalies countries hosts client-addresses);
    is by_id($root, 'records')->{attr}{'data-count'}, $sum->{records}, 'the record count';
    is by_id($root, 'records')->{attr}{'data-count'}, 3400, '3000 samples and 400 hostile records';

    # The timeline: six hours of minutes, each bucket as the summary has it.
    my $fig = by_id($root, 'timeline');
    is $fig->{attr}{'data-bucket-seconds'}, 60, 'timeline: a minute a bucket';
    like text_of($fig), qr/requests per minute \(UTC\)/, 'timeline: the page says so';
    my %want;
    for my $b (@{ $sum->{timeline}{buckets} }) {
        $want{ $b->{start} }{ $HTML->label($_) } += $b->{actions}{$_} for keys %{ $b->{actions} };
    }
    my (%got, $total, $mismatch);
    for my $g (tagged($fig, 'g', 'bucket')) {
        my $sum_of_segments = 0;
        for my $r (tagged($g, 'rect', 'segment')) {
            $got{ $r->{attr}{'data-start'} }{ $r->{attr}{'data-action'} } += $r->{attr}{'data-count'};
            $sum_of_segments += $r->{attr}{'data-count'};
        }
        $mismatch++ if $sum_of_segments != $g->{attr}{'data-count'};
        $total += $sum_of_segments;
    }
    is_deeply \%got, \%want, 'timeline: every segment\'s action and count as in the summary';
    is $mismatch, undef, 'timeline: each bucket\'s segments add up to its count';
    is $total, 3400, 'timeline: all 3400 requests';

    my $bars = sub { map { [ $_->{attr}{'data-key'}, $_->{attr}{'data-count'} ] } tagged(by_id($root, $_[0]), 'rect', 'bar') };
    my $items = sub { [ map { [ $HTML->label($_->{key}), $_->{count} ] } @{ $_[0] } ] };
    is_deeply [ $bars->('actions') ], $items->($sum->{actual_mitigation_action}), 'actions: every bar';
    is_deeply [ $bars->('classification') ], $items->($sum->{classification}), 'classification: every bar';
    is_deeply [ $bars->('bots') ], $items->($sum->{top}{bot_name}{items}), 'bots: every bar';
    is_deeply [ $bars->('anomalies') ], $items->($sum->{top}{anomalies}{items}), 'anomalies: every bar';
    is_deeply [ $bars->('countries') ], $items->($sum->{top}{country_code}{items}), 'countries: every bar';
    is_deeply [ $bars->('hosts') ], $items->($sum->{top}{host}{items}), 'hosts: every bar';
    is_deeply [ map { [ $_->{attr}{'data-key'}, $_->{attr}{'data-count'} ] } grep { exists $_->{attr}{'data-key'} } tagged(by_id($root, 'client-addresses'), 'tr') ],
        $items->($sum->{top}{client_ip}{items}), 'client addresses: every row';

    my %bots = map { @$_ } $bars->('bots');
    is $bots{ $hostile[0] }, 200, 'a bot named <script>...: its name is data, its count there';
    is $bots{ $hostile[1] }, 200, 'a bot named "><img ...: its name is data, its count there';
    is((grep { $_->[0] eq $hostile[1] } $bars->('actions'))[0][1], 400, 'a hostile action: data too');
    ok scalar(grep { text_of($_) eq $hostile[0] } tagged(by_id($root, 'bots'), 'text')), 'the bot <script>... is shown as text';
}

# ---- the page's policy, in the browser --------------------------------------------

{
    # A script and an image slipped into the page: the browser must refuse
    # both, and say so on the console (which also shows that the console is
    # read at all).
    (my $tampered = $html) =~ s{</body>}{<img src="http://example.invalid/x.png"><script>document.title = "ran"</script></body>};
    my ($status, $dom, $err) = chromium(write_page('tampered.html', $tampered), '--dump-dom');
    is $status, 0, 'tampered page: chromium exits with 0';
    my @console = console($err);
    is scalar(grep { /Content Security Policy/ && /inline/ } @console), 1, 'tampered page: the inline script is refused';
    is scalar(grep { /Content Security Policy/ && m{http://example\.invalid/x\.png} } @console), 1, 'tampered page: the image is not loaded';
    like $dom, qr{<title>Event report</title>}, 'tampered page: the script did not run';
}

done_testing;
