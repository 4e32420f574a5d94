#import "app/macos/status_item.h"

#include <vector>

#import "app/macos/ns_text.h"

using qev::app::nsText;
using qev::app::TrayEntry;

@implementation QEVStatusItem {
  qev::app::TrayMenu* _menu;
  NSStatusItem* _item;
  std::vector<TrayEntry> _drawn;
}

- (instancetype)initWithMenu:(qev::app::TrayMenu*)menu {
  if ((self = [super init])) {
    _menu = menu;
    _item = [NSStatusBar.systemStatusBar statusItemWithLength:NSVariableStatusItemLength];
    [self redraw];
    __weak QEVStatusItem* weakSelf = self;
    _menu->onChange([weakSelf] { [weakSelf redraw]; });
  }
  return self;
}

- (void)remove {
  if (!_menu) return;
  _menu->onChange(nullptr);
  _menu = nullptr;
  [NSStatusBar.systemStatusBar removeStatusItem:_item];
}

- (void)redraw {
  if (!_menu) return;
  _item.button.title = nsText(_menu->label());
  // The menu is rebuilt only when its entries change, not for every speed sample.
  std::vector<TrayEntry> entries = _menu->entries();
  if (entries == _drawn && _item.menu) return;
  NSMenu* menu = [[NSMenu alloc] init];
  menu.autoenablesItems = NO;
  for (const TrayEntry& entry : entries) {
    if (entry.kind == TrayEntry::Kind::kSeparator) {
      [menu addItem:[NSMenuItem separatorItem]];
      continue;
    }
    NSMenuItem* item = [[NSMenuItem alloc] initWithTitle:nsText(entry.text)
                                                  action:@selector(pick:)
                                           keyEquivalent:entry.id == "quit" ? @"q" : @""];
    item.target = self;
    item.representedObject = nsText(entry.id);
    item.enabled = entry.enabled && entry.kind != TrayEntry::Kind::kInfo;
    if (entry.kind == TrayEntry::Kind::kChoice) {
      item.state = entry.checked ? NSControlStateValueOn : NSControlStateValueOff;
    }
    [menu addItem:item];
  }
  _item.menu = menu;
  _drawn = std::move(entries);
}

- (void)pick:(NSMenuItem*)sender {
  if (_menu) _menu->activate(qev::app::utf8Text(sender.representedObject));
}

@end
