#pragma once

#include <QProgressBar>

// The thin bar under "Uploading… 42 %": a pill that fills from the left in the level
// meters' quiet colours, no text. A QProgressBar underneath, so assistive technology
// reads it as a progress bar named "Upload progress" with its value, 0 to 100.
//
// Main thread only.
class UploadProgressBar : public QProgressBar
{
    Q_OBJECT

public:
    explicit UploadProgressBar(QWidget *parent = nullptr);

    [[nodiscard]] QSize sizeHint() const override { return { 160, 4 }; }
    [[nodiscard]] QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent *event) override;
};
