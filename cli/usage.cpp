// cli/usage.cpp: the usage text, the program's only help. It has no final line feed: the
// routines that print it add one.
#include "cli/usage.h"

namespace nurel {

const std::string& usage() {
  static const std::string text =
      R"usage(Usage: nurel <command>   (actions take --intent <why>, shown over the page)
  guide                        how agents drive Nurel, then these commands
  mcp                          MCP server on stdin/stdout (claude mcp add nurel -- <path to nurel> mcp)
  tabs                         the agent's tabs
  open <url>                   a new tab in the Agent Space; prints its id
                               (a local HTML file, file:///path, asks the person every time)
  navigate <tab> <url>         go to a page in an agent tab (file:/// as with open)
  snapshot <tab> [--interactive] [--viewport] [--diff] [--file <path>]
                               the page as roles and names, with refs to act on
  click <tab> <ref> [--double] [--right]
                               click an element from the snapshot (or <x> <y>, CSS pixels)
  hover <tab> <ref>            the pointer over an element (or <x> <y>), for hover menus
  drag <tab> <from> <to>       press on one and let go over the other: refs, or x,y points
  find <tab> <text>            what on the page says <text>, with refs, best first
  inspect <tab> <ref> [--styles <a,b>]
                               an element's box, attributes and computed style
  type <tab> [--ref <ref>] [--replace] <text>
                               type into a field, or into what has focus
  choose <tab> <ref> <option>  pick an option in a dropdown
  key <tab> <key>              enter, tab, space, escape, backspace, delete, arrows, home, end,
                               pageup, pagedown, f1–f12 or a character, with modifiers:
                               shift+tab, cmd+a, ctrl+enter
  back <tab> | forward <tab>   through the tab's history
  reload <tab> [--hard]        the page again (--hard: nothing from the cache)
  scroll <tab> [<dy> [<dx>]] [--ref <ref>]
                               the wheel over the page: dy px down (negative up), a screen
                               by default; over that element, else the middle of the screen
  text <tab> [--all] [--file <path>]
                               the page's article (Readability), or --all of its text
  describe <tab>               the page in brief: headings, regions, what's on it, focus
  wait <tab> [--text <t>] [--gone <t>] [--url <part>] [--idle] [--seconds <n>] [--timeout <n>]
                               until text shows, goes, the address has <part>, the network
                               is quiet, or n seconds
  screenshot <tab> [--file <path>] [--plain] [--ref <ref>] [--full]
                               what's on the screen as a PNG, refs labelled unless --plain;
                               one element, or the whole page
  pdf <tab> [--file <path>]    the page as a PDF
  console <tab> [--errors] [--warnings] [--clear] [--limit <n>]
                               what the page logged, and its uncaught errors
  eval <tab> <script>          JavaScript in the page (a function body: return …)
  emulate <tab> [--dark|--light|--system] [--print|--screen] [--size <w>x<h>]
                               prefers-color-scheme, CSS media, the screen's size
  dialog <tab> accept|dismiss [<text>]
                               answer the page's alert, confirm or prompt
  batch <tab> <json>           several actions in order, stopping at the first that fails:
                               '[{"do":"type","ref":"e3","text":"hi"},{"do":"press_key","key":"enter"}]'
  upload <tab> <ref> <file>... give the page files (only from the folder Nurel allows)
  signin <tab>                 sign in with the person's saved login, after their yes and Touch ID
  network <tab> [--filter <part>] [--failed] [--clear] [--request <n>]
                               the page's requests: method, status, type, size, time, address;
                               one request's headers
  downloads <tab> [--wait]     what the tab downloaded, and where
  storage <tab> [--clear]      the site's cookies (values hidden) and storage, or clear them
  ask <tab> <message> [--timeout <minutes>]
                               ask the person to do something in the tab; wait for them
  scenarios                    the scenarios the person recorded (Record Steps for Agents)
  run <tab> <scenario> [--values <json>]
                               do a recorded scenario in the tab
  media <tab> [<action> [<value>]]
                               what plays, or: play, pause, toggle, seek <s>, skip <±s>,
                               volume <0–1>, mute, unmute, rate <×>, next, previous,
                               fullscreen, exit_fullscreen, pip, exit_pip
  close <tab>                  close an agent tab)usage";
  return text;
}

}  // namespace nurel
