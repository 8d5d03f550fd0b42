#pragma once

#include <QWidget>

class QCheckBox;
class QLineEdit;
class QSpinBox;

namespace kv {

struct PageContext;

// The engine's installation ("PathToClamav"), scanning with every core
// ("multiscan"), the scan log's rotation size ("rotateScanlogWhenSizeReaches",
// kB), the definitions updater's log ("PathToUpdateLog") and updating at
// launch ("UpdateDefsOnLaunch"). A value that cannot work is refused with
// the reason and the stored one kept.
class AdvancedPage : public QWidget {
    Q_OBJECT
public:
    explicit AdvancedPage(PageContext& context, QWidget* parent = nullptr);

    void refresh();
    bool setEnginePrefix(const QString& prefix);
    bool setUpdateLog(const QString& path);

private:
    PageContext& context_;
    QLineEdit* prefixEdit_;
    QLineEdit* updateLogEdit_;
    QCheckBox* multiscanBox_;
    QCheckBox* updateAtLaunchBox_;
    QSpinBox* rotationSpin_;
    bool filling_ = false;
};

} // namespace kv
