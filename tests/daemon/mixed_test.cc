// An audit file with every section kind, unknown sections and blank lines between sections,
// converted by the running daemon and checked record by record.
#include "daemon_harness.h"

namespace daemon_test {
namespace {

// Section k starts at 2023-11-14 09:k:00 UTC (1699952400 + 60 k); the last two sections are on
// the next day.
const char kAudit[] = R"(

ekscan
h 1699952400
user john smith
user-messages 5
user-size 1200
tray 1 inbox 3 400
tray 5 x 1 10
duration 9
user mary
tray 2 y 7 70
user-messages 2
bb-area-size 4
tray 9 bad 1 1

subsystem-start
h 1699952460
subsystem 3
user sysadm

subsystem-stop
h 1699952520
duration 10
user op1

user-signon
h 1699952580
user 123 Main Mail System jsmith smithj
signon-status 1 extra
client-type 4
designate-user 55 boss man
user-agent-id abc

user-signoff
h 1699952640
user 123 Main Mail
signoff-status 2 ok
duration 30
designate-user 9 x

Routing
h 1

routing
h 1699952700
type 1
priority 2
originator john/sales
ua-message-id ABC123
recipient-to mary/sales
ack-req 1
queue LOCAL
recipient-bcc bob
ack-req 0
queue EKX400-out
subject Hi, there
non-delivery-reason 7
ua-ack-id z
queue stray

fax
h 1699952760
priority 1
originator fred
recipient-to +44 123
recipient-xx
sent-pages 3
retries 1
subject x

delivery
h 1699952820
originator bob
recipient-to ann
non-delivery-reason 3
recipient-cc joe
auto-reply 1
delivered-count 2
subject ignored

request
h 1699952880
originator-admin-cap 2
originator admin/hq
request-name list users
mta-message-id M1
subject s

subsystem-start
header
user x

unix-in
h 1699952940
originator root@host
ua-message-id U1
type 3
unix-message-id ignored

unix-out
h 1699953000
type 2
non-delivery-reason 5
recipient-to a
recipient-cc b
unix-message-id UX9
hop-count 3

desk-in
h 1699953060
originator d/e
desk-message-id DM1 more
non-delivery-reason 1
mta-message-id q

desk-out
h 1699953120
type 4
recipient-to x
mta-message-id ignored

x400-in
h 1699953180
originator first/o
originator second/o
mta_message-id a\b
all-recips-non-deliv
mta-ack-id z

x400-out
h 1699953240
priority 2
recipient-to a
recipient-to b
recipient-cc c
type 1

sms-in
h 1699953300
message-size 1234 bytes
non-delivery-reason 5

sms-out
h 1699953360
originator x

notes-in
h 1699953420
anything goes

notes-out
h 1699953480

bulletin
h 1699953600
type 2
originator ann/hq
bulletin-name Staff\ News
bulletin-type x

dirsync-in
h 1699953660
originator dir/x
operation full sync
reload-posn 7
recipient r
syn-timestamp 1

dirsync-out
h 1699953720
recipient to/y
import-directory /imp
request-id 42
originator z

delivery
h 1700010000
recipient-to zed

bulletin
h 1700010060

)";

const char kRecords[] =
    R"(102,123,11,14,9,0,0,1699952400,"JOHN SMITH ",5,1200,3,400,0,0,0,0,0,0,1,10,"",""
102,123,11,14,9,0,0,1699952400,"MARY ",2,1200,3,400,7,70,0,0,0,0,1,10,"",""
105,123,11,14,9,1,0,1699952460,3,0,0,0,"sysadm","",0,0,0,"",0,0,0,"",""
106,123,11,14,9,2,0,1699952520,0,0,0,0,"op1","",0,0,0,"",0,0,0,"",""
103,123,11,14,9,3,0,1699952580,0,0,0,0,"MAIN MAIL SYSTEM ","jsmith",123,1,4,"smithj",0,0,55,"BOSS MAN ",""
104,123,11,14,9,4,0,1699952640,0,0,0,0,"MAIN MAIL ","",123,2 ok,30,"",0,0,0,"",""
101,123,11,14,9,5,0,1699952700,1,2,0,0,"JOHN/SALES ","ABC123",7,0,x,"",0,0,x,""," ","Hi, there",0,2
503,123,11,14,9,5,0,1699952700,"JOHN/SALES ","ABC123",7,0,0,1,"LOCAL","MARY/SALES ",1,0
503,123,11,14,9,5,0,1699952700,"JOHN/SALES ","ABC123",7,0,2,0,"EKX400-out","BOB ",0,1
107,123,11,14,9,6,0,1699952760,0,1,0,0,"FRED "," ",0,0,0,"+44 123 ",1,3," ",""," "
107,123,11,14,9,6,0,1699952760,0,1,0,0,"FRED "," ",0,0,4," ",1,3," ",""," "
108,123,11,14,9,7,0,1699952820,0,0,0,0,"BOB "," ",3,0,1,2,0,0,0,""," "
504,123,11,14,9,7,0,1699952820,"BOB "," ",3,"ANN "
504,123,11,14,9,7,0,1699952820,"BOB "," ",0,"JOE "
109,123,11,14,9,8,0,1699952880,0,0,0,0,"ADMIN/HQ "," ",0,0,0,"list users",2,0,0,"","M1"
110,123,11,14,9,9,0,1699952940,0,0,0,0,"ROOT@HOST ","U1",0,0,0,"",0,0,0,"",""
111,123,11,14,9,10,0,1699953000,2,0,0,0," "," ",5,0,0,"",0,0,0,""," ","UX9","",0,2
112,123,11,14,9,11,0,1699953060,0,0,0,0,"D/E "," ",1,0,0,"DM1",0,0,0,"",""
113,123,11,14,9,12,0,1699953120,4,0,0,0," "," ",0,0,0,"",0,0,0,"","",1
114,123,11,14,9,13,0,1699953180,0,0,0,0,"FIRST/O "," ","yes",0,0,"",0,0,0,"","a\b"
115,123,11,14,9,14,0,1699953240,0,2,0,0," "," "," ",0,0,"",0,0,0,""," ","",0,3
119,123,11,14,9,15,0,1699953300,"",0,0,0,"","",5,1234,0,"",0,0,0,"",""
120,123,11,14,9,16,0,1699953360,"",0,0,0,"","",0,0,0,"",0,0,0,"",""
118,123,11,14,9,20,0,1699953600,2,0,0,0,"ANN/HQ "," ",0,0,0,"Staff News",0,0,0,"",""
116,123,11,14,9,21,0,1699953660,full sync,0,0,7,"DIR/X "," ",0,0,0," ",0,0,0,"",""
117,123,11,14,9,22,0,1699953720,0,0,0,0,"TO/Y "," ",0,0,0,"/imp",0,42,0,"",""
)";

const char kNextDay[] = R"(108,123,11,15,1,0,0,1700010000,0,0,0,0," "," ",0,0,0,0,0,0,0,""," "
504,123,11,15,1,0,0,1700010000," "," ",0,"ZED "
118,123,11,15,1,1,0,1700010060,0,0,0,0," "," ",0,0,0," ",0,0,0,"",""
)";

const char kErrors[] =
    "Skipped line: 15\nLine = tray 9 bad 1 1\n\n"
    "Unknown audit file section: line 42\nRouting\n\n"
    "Unknown audit file section: line 43\nh 1\n\n"
    "Skipped line: 60\nLine = queue stray\n\n"
    "Skipped line: 98\nLine = type 3\n\n"
    "Skipped line: 115\nLine = mta-message-id q\n\n"
    "Skipped line: 129\nLine = mta-ack-id z\n\n"
    "Skipped line: 137\nLine = type 1\n\n"
    "Skipped line: 146\nLine = originator x\n\n"
    "Skipped line: 167\nLine = recipient r\n\n"
    "Skipped line: 175\nLine = originator z\n\n";

TEST(DaemonMixed, EverySectionKindRecordByRecord) {
  Sandbox box;
  box.write("audit", kAudit);
  Daemon daemon(box, {"-b", "cdf", "-a", "audit", "-d"});
  const std::string expected = header_record() + kRecords;
  EXPECT_TRUE(daemon.wait_file("cdf.000", header_record() + kNextDay));
  ASSERT_TRUE(daemon.wait_err("waiting...\n"));
  EXPECT_EQ(daemon.stop(), 0);

  EXPECT_EQ(box.read("cdf.001"), expected);
  EXPECT_EQ(box.files(),
            (std::map<std::string, std::string>{{"cdf.000", header_record() + kNextDay},
                                                {"cdf.001", expected},
                                                {"cdf.002", ""},
                                                {"cdf.ERR", kErrors}}));
  // Subsystem sections are counted also when their header has no time; NOTES sections are
  // read to their blank line and counted, and yield nothing.
  EXPECT_NE(
      daemon.err().find(statistics(
          {{"Bulletin", 2},       {"Delivery", 2},    {"Desk-in", 1},         {"Desk-out", 1},
           {"DirSync-in", 1},     {"DirSync-out", 1}, {"Fax-gateway", 1},     {"Ekscan", 1},
           {"Request-server", 1}, {"Routing", 1},     {"Subsystem-start", 2}, {"Subsystem-stop", 1},
           {"Unix-in", 1},        {"Unix-out", 1},    {"User-signoff", 1},    {"User-signon", 1},
           {"X400-in", 1},        {"X400-out", 1},    {"SMS-in", 1},          {"SMS-out", 1},
           {"NOTES-in", 1},       {"NOTES-out", 1}})),
      std::string::npos);
  EXPECT_EQ(daemon.out(), "");
}

}  // namespace
}  // namespace daemon_test
