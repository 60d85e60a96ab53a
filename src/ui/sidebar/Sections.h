#pragma once

#include <QWidget>

#include <functional>

class QVBoxLayout;

namespace cutlark {

class SidebarControls;

/// The sections of the settings sidebar, top to bottom, one file each. Every builder makes its
/// controls through `controls`, which binds them to their fields, and returns the section.
namespace SidebarSections {

QWidget* orientation(SidebarControls& controls, QWidget* parent);
/// The collage callout and the divider under it, both shown only for a collage, added to `rows`.
void collageCallout(SidebarControls& controls, QWidget* parent, QVBoxLayout* rows);
QWidget* crop(SidebarControls& controls, QWidget* parent, std::function<void()> editCrop);
QWidget* trim(SidebarControls& controls, QWidget* parent);
QWidget* backgroundRemoval(SidebarControls& controls, QWidget* parent, std::function<void()> refine);
QWidget* sticker(SidebarControls& controls, QWidget* parent);
QWidget* padding(SidebarControls& controls, QWidget* parent);
QWidget* background(SidebarControls& controls, QWidget* parent);
QWidget* resize(SidebarControls& controls, QWidget* parent);
QWidget* vectorize(SidebarControls& controls, QWidget* parent);

} // namespace SidebarSections
} // namespace cutlark
