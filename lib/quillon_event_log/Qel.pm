package quillon_event_log::Qel;

# The qel command: decode, encode, filter, sample and report over streams of
# event records.  bin/qel calls main; each subcommand is a method here, and
# they share the reading loop, the problem reports and the exit status.

use strict;
use warnings;

our $VERSION = '1.0';

use Getopt::Long ();
use JSON::XS ();
use POSIX ();
use Time::Local ();
use quillon_event_log::QuillonEventLog ();
use quillon_event_log::Codec ();
use quillon_event_log::Stream ();

# Exit statuses.
use constant { CLEAN => 0, SKIPPED => 1, USAGE => 2 };

# Input of more than this many bytes shows a progress bar on a terminal.
use constant PROGRESS_FROM => 4 * 1024 * 1024;

my %usage = (
    decode => 'qel decode [--json] [--fields LIST] [--strict] [--quiet] [FILE|-]...',
    encode => 'qel encode [--single] [--strict] [FILE|-]...',
    filter => 'qel filter [--where FIELD=VALUE]... [--match FIELD=REGEX]... [--since TIME] [--until TIME] '
            . '[--strict] [--quiet] [FILE|-]...',
    sample => 'qel sample [--count N] [--seed S]',
    report => 'qel report [--top N] [--json] [--html FILE] [--jobs N] [--max-keys N] [--strict] [--quiet] [FILE|-]...' . "\n"
            . '       qel report --partial [--jobs N] [--max-keys N] [--strict] [--quiet] [FILE|-]...' . "\n"
            . '       qel report --merge [--top N] [--json] [--html FILE] PART...',
);
my @commands = qw(decode encode filter sample report);

sub usage_text {
    return "usage:\n" . join('', map { "  $usage{$_}\n" } @commands)
         . "  qel --help | --version\n";
}

# Raised to stop at the first problem under --strict.
my $STOP = \'stop';

sub main {
    my (@argv) = @_;
    # Bytes that are not UTF-8 in text fields are normal in bot traffic, and
    # qel keeps them exactly: the runtime's complaints about them would only
    # drown the reports that matter.
    quillon_event_log::RuntimeLog::mode('silent');
    my $self = bless { problems => 0 }, __PACKAGE__;
    my $command = shift @argv // '';
    if ($command eq '--help' || $command eq '-h' || $command eq 'help') {
        print usage_text(), "Run 'perldoc qel' for the manual.\n";
        return CLEAN;
    }
    if ($command eq '--version') {
        print "qel $VERSION (quillon_event_log $quillon_event_log::QuillonEventLog::VERSION)\n";
        return CLEAN;
    }
    return $self->usage_error($command eq '' ? 'no command given' : "unknown command \"$command\"")
        unless $usage{$command};
    $self->{command} = $command;
    my $status = eval { $self->$command(@argv) };
    if (!defined $status) {
        my $error = $@;
        return SKIPPED if ref $error && $error == $STOP;
        die $error;
    }
    return $status;
}

sub usage_error {
    my ($self, $message) = @_;
    my $usage = $self->{command} ? "usage: $usage{$self->{command}}\n" : usage_text();
    print STDERR "qel: $message\n$usage";
    return USAGE;
}

# Parses the options of a subcommand; false after a usage error (printed).
sub options {
    my ($self, $argv, $wanted) = @_;
    my @warnings;
    local $SIG{__WARN__} = sub { push @warnings, $_[0] };
    my $p = Getopt::Long::Parser->new(config => [qw(no_ignore_case bundling no_auto_abbrev)]);
    my $ok = $p->getoptionsfromarray($argv, %$wanted, 'help|h' => \my $help);
    if ($help) {
        print "usage: $usage{$self->{command}}\n";
        $self->{exit} = CLEAN;
        return;
    }
    if (!$ok) {
        chomp(my $w = $warnings[0] // 'bad option');
        $self->{exit} = $self->usage_error(lcfirst $w);
        return;
    }
    return 1;
}

sub problem {
    my ($self, $message) = @_;
    print STDERR "$message\n";
    $self->{problems}++;
    die $STOP if $self->{strict};
}

sub status { $_[0]{problems} ? SKIPPED : CLEAN }

# An exception's text without Perl's " at FILE line N." ending.
sub reason {
    my ($error) = @_;
    $error =~ s/ at \S+ line \d+(?:, <[^>]*> (?:line|chunk) \d+)?\.\n\z//;
    chomp $error;
    return $error;
}

my $types;
sub field_types { $types //= quillon_event_log::Codec::field_types() }

# A field name given to an option, checked: the codec's own message for one
# that is not a field.
sub check_field {
    my ($self, $name, $option) = @_;
    my $why = quillon_event_log::Codec::field_name_error($name) // return 1;
    $self->{exit} = $self->usage_error("$option: $why");
    return;
}

# ---- reading ---------------------------------------------------------------

sub named_inputs { @{ $_[1] } ? @{ $_[1] } : ('-') }

# Calls $each->($value, $reader) for every readable record of every input,
# in order, $value being what the reader method $read gave for it; the reader
# is made with %options (codec options, fields, stripe).
sub each_record {
    my ($self, $files, $read, $each, %options) = @_;
    my @files = $self->named_inputs($files);
    my $progress = $self->progress_bar(\@files);
    my $done = 0;
    for my $file (@files) {
        my $source = $file eq '-' ? \*STDIN : $file;
        my $reader = eval {
            quillon_event_log::Stream->reader($source, %options, name => $file,
                on_error => sub { $self->problem($_[0]{message}) });
        };
        if (!$reader) {
            # Workers sharing a file by stripes: the first one says it.
            my $stripe = $options{stripe};
            $self->problem('qel: ' . reason($@)) unless $stripe && $stripe->[0];
            next;
        }
        my $count = 0;
        while (defined(my $value = $reader->$read)) {
            $each->($value, $reader);
            if ($progress && ++$count % 4096 == 0) {
                $progress->update($done + $reader->bytes_in);
            }
        }
        $done += $reader->bytes_in;
        $progress->update($done) if $progress;
    }
    return;
}

# A progress bar on stderr when it is a terminal and the named files hold
# more than a few MB; never for --quiet.
sub progress_bar {
    my ($self, $files) = @_;
    return if $self->{quiet} || !-t STDERR;
    my $total = 0;
    for (@$files) {
        return if $_ eq '-' || !-f $_;
        $total += -s _;
    }
    return if $total <= PROGRESS_FROM;
    require Term::ProgressBar;
    my $bar = Term::ProgressBar->new({ count => $total, name => "qel $self->{command}",
                                       fh => \*STDERR, remove => 1, ETA => 'linear' });
    $bar->minor(0);
    return $bar;
}

# ---- decode --------------------------------------------------------------------

sub decode {
    my ($self, @argv) = @_;
    my %o;
    $self->options(\@argv, { 'json' => \$o{json}, 'fields=s' => \$o{fields},
                             'strict' => \$self->{strict}, 'quiet' => \$self->{quiet} })
        or return $self->{exit};
    my @fields;
    if (defined $o{fields}) {
        @fields = grep { length } split /\s*,\s*/, $o{fields};
        return $self->usage_error('--fields: no field named') unless @fields;
        $self->check_field($_, '--fields') or return $self->{exit} for @fields;
    }
    binmode STDOUT;
    return $o{json} ? $self->decode_json(\@argv, \@fields) : $self->decode_text(\@argv, \@fields);
}

sub decode_text {
    my ($self, $files, $fields) = @_;
    $self->each_record($files, 'next_record', sub {
        my ($record, $reader) = @_;
        if (@$fields) {
            my $hash = $record->to_hashref;
            $record = quillon_event_log::QuillonEventLog->new(
                { map { $_ => $hash->{$_} } grep { exists $hash->{$_} } @$fields });
        }
        printf "# %s: record %d at byte %d, %d bytes\n", $reader->name, $reader->index,
            $reader->offset, length $reader->last_bytes;
        print $record->debug_string;
    });
    return $self->status;
}

my $json_out = JSON::XS->new->utf8->canonical;

sub decode_json {
    my ($self, $files, $fields) = @_;
    my @flags = grep { field_types()->{$_} eq 'bool' } sort keys %{ field_types() };
    my ($true, $false) = (JSON::XS::true(), JSON::XS::false());
    $self->each_record($files, 'next', sub {
        my ($event, $reader) = @_;
        unless (@$fields) {
            # Input that is not in canonical form (fields out of order, a
            # value given twice) keeps its exact bytes, so that encode gives
            # them back.
            $event->{_wire} = unpack 'H*', $reader->last_bytes unless $reader->canonical;
        }
        for (@flags) {
            $event->{$_} = $event->{$_} ? $true : $false if exists $event->{$_};
        }
        print $json_out->encode($event), "\n";
    }, characters => 1, addresses => 'text', (@$fields ? (fields => $fields) : ()));
    return $self->status;
}

# ---- encode --------------------------------------------------------------------

sub encode {
    my ($self, @argv) = @_;
    my $single;
    $self->options(\@argv, { 'single' => \$single, 'strict' => \$self->{strict} })
        or return $self->{exit};
    my $codec = quillon_event_log::Codec->new(characters => 1, addresses => 'text');
    my $json = JSON::XS->new->utf8;
    binmode STDOUT;
    my $writer = $single ? undef : quillon_event_log::Stream->writer(\*STDOUT, name => '-');
    my @single;
    for my $file ($self->named_inputs(\@argv)) {
        my $fh;
        if ($file eq '-') {
            $fh = \*STDIN;
        } elsif (!open $fh, '<', $file) {
            $self->problem("qel: cannot open $file: $!");
            next;
        }
        binmode $fh;
        while (my $line = <$fh>) {
            next if $line =~ /\A\s*\z/;
            chomp $line;
            my $bytes = eval { $self->event_bytes($codec, $json->decode($line)) };
            if (!defined $bytes) {
                die $@ if ref $@;
                $self->problem("$file: line $.: " . reason($@));
                next;
            }
            if ($single) {
                push @single, $bytes;
            } else {
                $writer->write_bytes($bytes);
            }
        }
    }
    if ($single) {
        if (@single != 1) {
            $self->problem('qel: --single needs exactly one record, the input holds ' . scalar @single);
            return $self->status;
        }
        print $single[0];
    } else {
        $writer->close;
    }
    return $self->status;
}

# The bytes of one decoded JSON object: the original bytes of `_wire` while
# the fields still say what they say, else the fields' encoding.
sub event_bytes {
    my ($self, $codec, $event) = @_;
    die "expected a JSON object\n" unless ref $event eq 'HASH';
    my $wire = delete $event->{_wire};
    my $bytes = $codec->encode($event);
    if (defined $wire) {
        die "_wire: expected a string of hexadecimal digits\n"
            if ref $wire || $wire !~ /\A(?:[0-9a-fA-F]{2})*\z/;
        my $original = pack 'H*', $wire;
        my $same = eval { $codec->encode($codec->decode($original)) eq $bytes };
        return $original if $same;
    }
    return $bytes;
}

# ---- filter --------------------------------------------------------------------

sub filter {
    my ($self, @argv) = @_;
    my (@where, @match, $since, $until);
    $self->options(\@argv, { 'where=s' => \@where, 'match=s' => \@match, 'since=s' => \$since,
                             'until=s' => \$until, 'strict' => \$self->{strict}, 'quiet' => \$self->{quiet} })
        or return $self->{exit};
    my @tests;
    # Each condition with the option that gave it (the same text may come
    # with both).
    for (map({ ['--where', 'VALUE', $_] } @where), map({ ['--match', 'REGEX', $_] } @match)) {
        my ($option, $what, $cond) = @$_;
        my $is_where = $option eq '--where';
        my ($field, $value) = $cond =~ /\A([^=]*)=(.*)\z/s
            or return $self->usage_error("$option: expected FIELD=$what, got \"$cond\"");
        $self->check_field($field, $option) or return $self->{exit};
        utf8::decode($value);
        my $test;
        if ($is_where) {
            $test = $self->equality($field, $value);
        } else {
            my $re = eval { qr/$value/ };
            return $self->usage_error("--match: invalid regular expression \"$value\"") unless $re;
            $test = sub { defined $_[0] && !ref $_[0] && $_[0] =~ $re };
        }
        push @tests, [$field, $test];
    }
    for ([\$since, '--since'], [\$until, '--until']) {
        my ($time, $option) = @$_;
        next unless defined $$time;
        my $t = parse_time($$time);
        return $self->usage_error("$option: \"$$time\" is neither unix seconds nor an ISO 8601 time")
            unless defined $t;
        $$time = $t;
    }
    binmode STDOUT;
    my $writer = quillon_event_log::Stream->writer(\*STDOUT, name => '-');
    $self->each_record(\@argv, 'next', sub {
        my ($event, $reader) = @_;
        if (defined $since || defined $until) {
            my $t = $event->{request_time};
            return unless defined $t;
            return if defined $since && $t < $since;
            return if defined $until && $t >= $until;
        }
        for (@tests) {
            my ($field, $test) = @$_;
            my $v = $event->{$field};
            return unless defined $v;
            if (ref $v eq 'ARRAY') {
                return unless grep { $test->($_) } @$v;
            } else {
                return unless $test->($v);
            }
        }
        $writer->write_bytes($reader->last_bytes);
    }, characters => 1, addresses => 'text',
       fields => [map({ $_->[0] } @tests), (defined $since || defined $until ? 'request_time' : ())]);
    $writer->close;
    return $self->status;
}

# The test of --where: text equality, numbers compared as numbers, flags as
# true/false/1/0.
sub equality {
    my ($self, $field, $value) = @_;
    my $type = field_types()->{$field};
    if ($type eq 'bool') {
        my %flag = (true => 1, 1 => 1, false => 0, 0 => 0);
        my $want = $flag{lc $value};
        return sub { 0 } unless defined $want;
        return sub { ($_[0] ? 1 : 0) == $want };
    }
    if ($type eq 'uint32' || $type eq 'uint64') {
        return sub { 0 } unless $value =~ /\A[0-9]+\z/;
        (my $n = $value) =~ s/\A0+(?=.)//;
        return sub { $_[0] eq $n };
    }
    return sub { !ref $_[0] && $_[0] eq $value };
}

# Unix seconds, or an ISO 8601 date or time (UTC unless it has an offset).
sub parse_time {
    my ($text) = @_;
    return $text + 0 if $text =~ /\A[0-9]+\z/;
    my ($y, $mo, $d, $h, $mi, $s, $zone) = $text =~
        /\A(\d{4})-(\d\d)-(\d\d)(?:[T ](\d\d):(\d\d)(?::(\d\d)(?:\.\d+)?)?)?\s*(Z|[+-]\d\d:?\d\d)?\z/
        or return;
    my $t = eval { Time::Local::timegm($s // 0, $mi // 0, $h // 0, $d, $mo - 1, $y) };
    return unless defined $t;
    if ($zone && $zone ne 'Z') {
        my ($sign, $zh, $zm) = $zone =~ /\A([+-])(\d\d):?(\d\d)\z/;
        $t -= ($sign eq '+' ? 1 : -1) * ($zh * 3600 + $zm * 60);
    }
    return $t;
}

# ---- sample --------------------------------------------------------------------

sub sample {
    my ($self, @argv) = @_;
    my ($count, $seed) = (1000, 1);
    $self->options(\@argv, { 'count=s' => \$count, 'seed=s' => \$seed }) or return $self->{exit};
    return $self->usage_error("--count: expected a whole number, got \"$count\"") unless $count =~ /\A[0-9]+\z/;
    return $self->usage_error("--seed: expected a whole number, got \"$seed\"") unless $seed =~ /\A[0-9]+\z/;
    return $self->usage_error("unexpected argument \"$argv[0]\"") if @argv;
    require quillon_event_log::Sample;
    binmode STDOUT;
    my $writer = quillon_event_log::Stream->writer(\*STDOUT, name => '-', addresses => 'text');
    my $gen = quillon_event_log::Sample->new(seed => $seed, count => $count);
    while (my $event = $gen->next) {
        $writer->write_event($event);
    }
    $writer->close;
    return CLEAN;
}

# ---- report --------------------------------------------------------------------

sub report {
    my ($self, @argv) = @_;
    my %o = (top => 10, jobs => 1, max_keys => 20_000);
    $self->options(\@argv, { 'top=s' => \$o{top}, 'json' => \$o{json}, 'html=s' => \$o{html},
                             'partial' => \$o{partial}, 'merge' => \$o{merge}, 'jobs=s' => \$o{jobs},
                             'max-keys=s' => \$o{max_keys},
                             'strict' => \$self->{strict}, 'quiet' => \$self->{quiet} })
        or return $self->{exit};
    return $self->usage_error("--top: expected a positive whole number, got \"$o{top}\"") unless $o{top} =~ /\A[1-9][0-9]*\z/;
    return $self->usage_error("--jobs: expected a positive whole number, got \"$o{jobs}\"") unless $o{jobs} =~ /\A[1-9][0-9]*\z/;
    return $self->usage_error("--max-keys: expected a positive whole number, got \"$o{max_keys}\"")
        unless $o{max_keys} =~ /\A[1-9][0-9]{0,8}\z/;
    return $self->usage_error('--partial and --merge exclude each other') if $o{partial} && $o{merge};
    return $self->usage_error('--partial writes the partial report only: no --json or --html')
        if $o{partial} && ($o{json} || defined $o{html});
    return $self->usage_error('--merge reads partial reports: no --jobs') if $o{merge} && $o{jobs} > 1;
    return $self->usage_error('--merge needs at least one partial report') if $o{merge} && !@argv;
    require quillon_event_log::Report;

    my %new = (top => $o{top}, max_keys => $o{max_keys});
    my $report = $o{merge}        ? $self->merged_partials(\@argv, \%new)
               : $o{jobs} > 1     ? $self->report_in_workers(\@argv, \%new, $o{jobs})
               :                    $self->report_of(\@argv, \%new);
    binmode STDOUT;
    if ($o{partial}) {
        print $report->partial;
        return $self->status;
    }
    if (defined $o{html}) {
        require quillon_event_log::Report::Html;
        my $page = quillon_event_log::Report::Html->render($report->summary);
        utf8::encode($page);
        open my $fh, '>:raw', $o{html} or do { $self->problem("qel: cannot open $o{html} for writing: $!"); return $self->status };
        print $fh $page;
        close $fh or $self->problem("qel: cannot write $o{html}: $!");
    }
    if ($o{json}) {
        print $report->as_json;
    } else {
        my $text = $report->as_text(unicode => utf8_terminal());
        utf8::encode($text);
        print $text;
    }
    return $self->status;
}

# One pass over the inputs; with `stripe`, only this worker's share.
sub report_of {
    my ($self, $files, $new, %stripe) = @_;
    my $report = quillon_event_log::Report->new(%$new);
    $self->each_record($files, 'next', sub { $report->add($_[0]) },
                       characters => 1, addresses => 'text', fields => [quillon_event_log::Report->fields], %stripe);
    return $report;
}

sub merged_partials {
    my ($self, $files, $new) = @_;
    my $report = quillon_event_log::Report->new(%$new);
    for my $file (@$files) {
        my $bytes = do {
            my $fh;
            if ($file eq '-') { $fh = \*STDIN } elsif (!open $fh, '<:raw', $file) { $self->problem("qel: cannot open $file: $!"); next }
            local $/;
            binmode $fh;
            <$fh>;
        };
        my $part = eval { quillon_event_log::Report->from_partial($bytes // '', top => $new->{top}) };
        if (!$part) {
            $self->problem("$file: " . reason($@));
            next;
        }
        $report->merge($part);
    }
    return $report;
}

# --jobs N: N worker processes, each counting its share of the inputs into a
# partial report in a file of its own; the partials are merged in worker
# order.  With at least N files, each worker takes whole files (the largest
# first, to the least loaded worker); otherwise each file is shared, worker W
# taking the records whose number is W modulo N.  Standard input cannot be
# shared: one worker reads it whole.
sub report_in_workers {
    my ($self, $files, $new, $jobs) = @_;
    require File::Temp;
    my @files = $self->named_inputs($files);
    my @work = map { [] } 1 .. $jobs;
    if (@files >= $jobs) {
        my @load = (0) x $jobs;
        for my $file (sort { (-s $b // 0) <=> (-s $a // 0) || $a cmp $b } @files) {
            my ($least) = sort { $load[$a] <=> $load[$b] || $a <=> $b } 0 .. $jobs - 1;
            push @{ $work[$least] }, [$file];
            $load[$least] += -s $file // 0;
        }
    } else {
        for my $file (@files) {
            if ($file eq '-') { push @{ $work[0] }, [$file] }
            else { push @{ $work[$_] }, [$file, $_, $jobs] for 0 .. $jobs - 1 }
        }
    }
    my $dir = File::Temp::tempdir(CLEANUP => 1);
    my %worker;
    STDOUT->flush;
    STDERR->flush;
    for my $w (0 .. $jobs - 1) {
        next unless @{ $work[$w] };
        my $pid = fork // die "qel: cannot start a worker: $!\n";
        if (!$pid) {
            $self->{quiet} = 1;    # one progress bar would not tell the truth
            my $report = quillon_event_log::Report->new(%$new);
            my $status = eval {
                for (@{ $work[$w] }) {
                    my ($file, $at, $of) = @$_;
                    $report->merge($self->report_of([$file], $new, $of ? (stripe => [$at, $of]) : ()));
                }
                open my $out, '>:raw', "$dir/$w.part" or die "qel: cannot write a partial report: $!\n";
                print $out $report->partial;
                close $out or die "qel: cannot write a partial report: $!\n";
                $self->status;
            };
            if (!defined $status) {
                print STDERR $@ unless ref $@;
                $status = SKIPPED;
            }
            POSIX::_exit($status);
        }
        $worker{$pid} = $w;
    }
    my $report = quillon_event_log::Report->new(%$new);
    my %done;
    while ((my $pid = waitpid(-1, 0)) > 0) {
        my $w = delete $worker{$pid} // next;
        $self->{problems}++ if $?;
        $done{$w} = 1;
    }
    for my $w (sort { $a <=> $b } keys %done) {
        open my $fh, '<:raw', "$dir/$w.part" or next;
        local $/;
        $report->merge(quillon_event_log::Report->from_partial(scalar <$fh>, top => $new->{top}));
    }
    die $STOP if $self->{strict} && $self->{problems};
    return $report;
}

# Block characters only where they will show: standard output is a terminal
# and the locale's character set is UTF-8.
sub utf8_terminal {
    return 0 unless -t STDOUT;
    my $locale = $ENV{LC_ALL} || $ENV{LC_CTYPE} || $ENV{LANG} || '';
    return $locale =~ /UTF-?8/i ? 1 : 0;
}

1;
