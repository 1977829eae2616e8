// Macros that C libraries, window systems and other systems' headers define, each with a text that
// no header survives where it uses the name. Not here: the names of the public interface itself,
// such as url, code, message, headers and list.

// X11
#define Above @
#define Always @
#define Below @
#define Bool @
#define Complex @
#define CurrentTime @
#define Cursor @
#define Display @
#define False @
#define FocusIn @
#define Font @
#define KeyPress @
#define None @
#define Status @
#define Success @
#define True @
#define Unsorted @
#define Window @

// Windows
#define CONST @
#define CreateFile @
#define DELETE @
#define ERROR @
#define FALSE @
#define GetMessage @
#define IN @
#define NO_ERROR @
#define OPTIONAL @
#define OUT @
#define SendMessage @
#define TRUE @
#define VOID @
#define far @
#define hyper @
#define interface @
#define max(a, b) @
#define min(a, b) @
#define near @
#define small @

// C libraries, and the extensions of GNU C
#define B0 @
#define I @
#define LOG_DEBUG @
#define N_ @
#define isset @
#define linux @
#define major(device) @
#define makedev @
#define minor(device) @
#define unix @
#undef assert
#define assert(condition) @

// Frameworks
#define ASSERT @
#define CHECK @
#define DEBUG @
#define EXPECT @
#define FAIL @
#define INFO @
#define _ @
#define check @
#define emit @
#define foreach @
#define require @
#define signals @
#define slots @
#define verify @

// Words that a client of HTTP and OAuth2 may have as macros
#define cookie @
#define error @
#define log @
#define login @
#define post @
#define query @
#define token @
