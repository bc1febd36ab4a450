#!/usr/bin/perl
# What the private mark on handles costs per call: two builds of the module
# (before and after a change) timed in one run, in child perls that alternate
# build by build, round by round, so a slow moment of the machine hits both.
# Per round the ratio after/before of each case; reported: the median ratio
# and its spread (quartiles, min, max) over the rounds.
# With --callgrind instead: instructions per call of each case on each build,
# counted by valgrind's callgrind (a run of 100000 calls minus a run of none,
# so start-up cancels out; the loop's own instructions are counted too).
# Run: perl bench/handles_cost.pl [--callgrind] BEFORE/blib AFTER/blib [rounds] [calls]
use strict;
use warnings;
use Cwd ();

my $CALLGRIND = @ARGV && $ARGV[0] eq '--callgrind' ? shift : undef;
my ($before, $after, $ROUNDS, $N) = @ARGV;
die "usage: perl bench/handles_cost.pl [--callgrind] BEFORE_BLIB AFTER_BLIB [rounds] [calls]\n"
    unless defined $after && -d "$before/arch" && -d "$after/arch";
$ROUNDS //= 31;
$N      //= 200_000;

# The child: times each case for $N calls, the empty loop's time removed, and
# prints "name ns" lines.
my $child = <<'PERL';
use strict;
use warnings;
use Time::HiRes qw(time);
use quillon_event_log::QuillonEventLog;
my $N = shift;
my $ONLY = shift;    # callgrind: run this one case once, untimed
my $C = 'quillon_event_log::QuillonEventLog';
my $r = $C->new({ bot_name => 'curl', src_port => 51234 });
my @cases = (
    ['empty loop'      => sub { for (1 .. $N) { } }],
    ['string getter'   => sub { for (1 .. $N) { $r->bot_name } }],
    ['uint32 getter'   => sub { for (1 .. $N) { $r->src_port } }],
    ['string setter'   => sub { for (1 .. $N) { $r->set_bot_name('curl') } }],
    ['uint32 setter'   => sub { for (1 .. $N) { $r->set_src_port(443) } }],
    ['new + DESTROY'   => sub { for (1 .. $N) { $C->new } }],
);
if (defined $ONLY) {
    $_->[1]->() for grep { $_->[0] eq $ONLY } @cases;
    exit;
}
$_->[1]->() for @cases;    # warm up
my %ns;
for my $rep (1 .. 3) {      # best of three inside the child
    for my $c (@cases) {
        my $t0 = time;
        $c->[1]->();
        my $ns = (time - $t0) / $N * 1e9;
        $ns{ $c->[0] } = $ns if !defined $ns{ $c->[0] } || $ns < $ns{ $c->[0] };
    }
}
my $empty = $ns{'empty loop'};
printf "%s\t%.3f\n", $_->[0], $ns{ $_->[0] } - $empty for @cases[1 .. $#cases];
PERL

my %builds = (before => Cwd::abs_path($before), after => Cwd::abs_path($after));

if ($CALLGRIND) {
    require File::Temp;
    my $log = File::Temp->new(SUFFIX => '.log')->filename;
    my $calls = $N // 100_000;
    # The same hash seed in every run: the counts then repeat exactly.
    local $ENV{PERL_HASH_SEED} = 0;
    local $ENV{PERL_PERTURB_KEYS} = 0;
    printf "instructions per call (callgrind, %d calls minus none; the empty loop's count removed)\n", $calls;
    printf "%-16s %10s %10s %9s %9s\n", 'case', 'before', 'after', 'extra', 'ratio';
    my %empty;
    for my $case ('empty loop', 'string getter', 'uint32 getter', 'string setter', 'uint32 setter', 'new + DESTROY') {
        my %ir;
        for my $which (qw(before after)) {
            my $blib = $builds{$which};
            my @count = map {
                system('valgrind', '--tool=callgrind', '--callgrind-out-file=/dev/null', "--log-file=$log",
                       $^X, "-I$blib/lib", "-I$blib/arch", '-e', $child, $_, $case) == 0
                    or die "valgrind failed for $case ($which): $?\n";
                my $out = do { open my $fh, '<', $log or die "$log: $!"; local $/; <$fh> };
                $out =~ /Collected : (\d+)/ or die "no callgrind count for $case ($which):\n$out";
                $1;
            } 0, $calls;
            $ir{$which} = ($count[1] - $count[0]) / $calls;
        }
        if ($case eq 'empty loop') {
            %empty = %ir;
            printf "%-16s %10.1f %10.1f  (removed below)\n", $case, $ir{before}, $ir{after};
            next;
        }
        my ($b, $a) = ($ir{before} - $empty{before}, $ir{after} - $empty{after});
        printf "%-16s %10.1f %10.1f %+9.1f %9.4f\n", $case, $b, $a, $a - $b, $a / $b;
    }
    exit;
}
my (%ns, %ratio, @names);
for my $round (1 .. $ROUNDS) {
    my %this;
    # Alternate which build goes first.
    for my $which ($round % 2 ? qw(before after) : qw(after before)) {
        my $blib = $builds{$which};
        open my $fh, '-|', $^X, "-I$blib/lib", "-I$blib/arch", '-e', $child, $N
            or die "cannot run perl: $!";
        while (my $line = <$fh>) {
            chomp $line;
            my ($name, $ns) = split /\t/, $line;
            push @names, $name if $round == 1 && $which eq 'before';
            $this{$which}{$name} = $ns;
            push @{ $ns{$which}{$name} }, $ns;
        }
        close $fh or die "the child for $which failed: $?\n";
    }
    push @{ $ratio{$_} }, $this{after}{$_} / $this{before}{$_} for @names;
    printf STDERR "round %d/%d done\n", $round, $ROUNDS if -t STDERR;
}

sub quantile {
    my ($q, @v) = @_;
    @v = sort { $a <=> $b } @v;
    my $pos = $q * $#v;
    my $lo = int $pos;
    return $lo == $#v ? $v[$lo] : $v[$lo] + ($pos - $lo) * ($v[$lo + 1] - $v[$lo]);
}

printf "perl %vd, %d rounds of %d calls per case, builds alternating; ns per call, loop removed\n",
    $^V, $ROUNDS, $N;
printf "%-16s %10s %10s %9s %9s %9s %9s %9s\n", 'case', 'before ns', 'after ns', 'ratio', 'q1', 'q3', 'min', 'max';
for my $name (@names) {
    my @r = @{ $ratio{$name} };
    printf "%-16s %10.2f %10.2f %9.4f %9.4f %9.4f %9.4f %9.4f\n", $name,
        quantile(0.5, @{ $ns{before}{$name} }), quantile(0.5, @{ $ns{after}{$name} }),
        quantile(0.5, @r), quantile(0.25, @r), quantile(0.75, @r), quantile(0, @r), quantile(1, @r);
}
