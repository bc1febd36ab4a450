# Perl threads started while records and address objects exist: joined or
# detached, neither the parent nor the thread may crash or free a record
# twice.  Objects are not copied into new threads (CLONE_SKIP), so a thread
# sees unblessed references to undef where the parent has objects.  Each
# scenario runs in its own perl, so a crash or a double free at exit shows as
# its exit status and output (under the sanitizer build, as a report).
use strict;
use warnings;
use Config;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(:all);

plan skip_all => 'this perl has no threads' unless $Config{useithreads};

# The part every scenario shares: a record and an address object made before
# any thread, and what their bytes are.
my $prelude = <<'PERL';
use strict;
use warnings;
use threads;
use quillon_event_log::QuillonEventLog;
my $C = 'quillon_event_log::QuillonEventLog';
my $rec  = $C->new({ bot_name => 'curl', client_ip => { ip0 => 1, rtdom_id => 7 }, anomalies => ['a', ''] });
my $addr = $rec->client_ip;
@Sub::ISA = ($C);
my $sub_obj = bless $C->new({ host => 'h' }), 'Sub';
my $before = unpack 'H*', $rec->pack;
PERL


my @scenarios = (
    [ 'joined thread: sees no objects, makes and frees its own' => <<'PERL', "child:SCALAR,undef,SCALAR,undef,1\nparent:same,h\n" ],
my $t = threads->create(sub {
    my $mine = $C->new({ host => 'child' });
    my $copy = $C->new($mine->pack);
    join ',', ref($rec), (defined $$rec ? 'defined' : 'undef'), ref($addr), (defined $$addr ? 'defined' : 'undef'),
        $copy->host eq 'child' ? 1 : 0;
});
print "child:", $t->join, "\n";
print "parent:", (unpack('H*', $rec->pack) eq $before ? 'same' : 'changed'), ",", $sub_obj->host, "\n";
PERL
    [ 'detached thread: runs to its end while the parent keeps its objects' => <<'PERL', "done:1\nparent:same\n" ],
use threads::shared;
my $done :shared = 0;
threads->create(sub {
    my $mine = $C->new({ bot_name => 'detached' });
    my $a = $mine->client_ip;
    { lock $done; $done = $mine->bot_name eq 'detached' ? 1 : -1; cond_signal $done; }
})->detach;
{ lock $done; cond_wait $done until $done; }
print "done:$done\n";
select undef, undef, undef, 0.2;   # let the thread finish and free its interpreter
print "parent:", (unpack('H*', $rec->pack) eq $before ? 'same' : 'changed'), "\n";
PERL
    [ 'an object returned from a thread arrives as no object; its bytes arrive whole' => <<'PERL', "returned:SCALAR,undef\nbytes:0a0674687265616400\n" ],
my ($obj) = threads->create(sub { $C->new({ bot_name => 'thread' }) })->join;
print "returned:", ref($obj), ",", (defined $$obj ? 'defined' : 'undef'), "\n";
my ($bytes) = threads->create(sub { $C->new({ bot_name => 'thread' })->pack })->join;
print "bytes:", unpack('H*', $C->new($bytes)->pack), "00\n";
PERL
    [ 'an object passed as a thread argument arrives as no object' => <<'PERL', "arg:SCALAR,undef\n" ],
my $t = threads->create(sub { my ($r) = @_; join ',', ref($r), (defined $$r ? 'defined' : 'undef') }, $rec);
print "arg:", $t->join, "\n";
PERL
    [ 'many threads at once, each with its own records' => <<'PERL', "sum:" . (8 * 200) . "\nparent:same\n" ],
my @t = map {
    my $n = $_;
    threads->create(sub {
        my $ok = 0;
        for my $i (1 .. 200) {
            my $r = $C->new({ bot_name => "t$n-$i", src_port => $i, client_ip => { ip0 => $i } });
            my $back = $C->new($r->pack)->to_hashref;
            $ok++ if $back->{bot_name} eq "t$n-$i" && $back->{client_ip}{ip0} == $i;
        }
        $ok;
    });
} 1 .. 8;
my $sum = 0;
$sum += $_->join for @t;
print "sum:$sum\n";
print "parent:", (unpack('H*', $rec->pack) eq $before ? 'same' : 'changed'), "\n";
PERL
    [ 'a thread that ends by dying frees its records once' => <<'PERL', "Thread 1 terminated abnormally: thread dies\njoined:undef\nparent:same\n" ],
my $t = threads->create(sub { my $mine = $C->new({ host => 'x' }); my $a = $mine->client_ip; die "thread dies\n" });
my $r = $t->join;
print "joined:", (defined $r ? 'defined' : 'undef'), "\n";
print "parent:", (unpack('H*', $rec->pack) eq $before ? 'same' : 'changed'), "\n";
PERL
);

for my $s (@scenarios) {
    my ($name, $code, $want) = @$s;
    my ($status, $out) = run_perl($prelude . $code);
    is $out, $want, "$name: output, standard error included";
    is $status, 0, "$name: exit status 0";
}

require quillon_event_log::QuillonEventLog;
is(quillon_event_log::QuillonEventLog->CLONE_SKIP, 1, 'the record class skips cloning');
is(quillon_event_log::IPAddr->CLONE_SKIP, 1, 'the address class skips cloning');

done_testing;
