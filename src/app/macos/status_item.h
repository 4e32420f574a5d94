#pragma once

#import <Cocoa/Cocoa.h>

#include "app/tray_menu.h"

// The menu-bar item: draws the portable tray menu (the speed or the product's name as its
// title, the menu's entries) and hands what the user picks back to it. The menu must outlive
// the item, or `remove` must be called first.
@interface QEVStatusItem : NSObject
- (instancetype)initWithMenu:(qev::app::TrayMenu*)menu;
- (void)remove;
@end
