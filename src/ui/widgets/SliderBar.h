#pragma once

#include <QColor>
#include <QPointF>
#include <QRectF>
#include <QString>
#include <QVector>
#include <QWidget>

class QTimer;

// A row or column of text items with a highlight bar that glides to the chosen item; the tab bar
// of the settings and help dialogs.
class SliderBar : public QWidget
{
    Q_OBJECT
    Q_PROPERTY(QColor bgColorStart READ bgColorStart WRITE setBgColorStart)
    Q_PROPERTY(QColor bgColorEnd READ bgColorEnd WRITE setBgColorEnd)
    Q_PROPERTY(QColor barColorStart READ barColorStart WRITE setBarColorStart)
    Q_PROPERTY(QColor barColorEnd READ barColorEnd WRITE setBarColorEnd)
    Q_PROPERTY(QColor textNormalColor READ textNormalColor WRITE setTextNormalColor)
    Q_PROPERTY(QColor textSelectColor READ textSelectColor WRITE setTextSelectColor)
    Q_PROPERTY(QString items READ items WRITE setItems)
    Q_PROPERTY(int currentIndex READ currentIndex WRITE setCurrentIndex)
    Q_PROPERTY(QString currentItem READ currentItem WRITE setCurrentItem)
    Q_PROPERTY(int bgRadius READ bgRadius WRITE setBgRadius)
    Q_PROPERTY(int barRadius READ barRadius WRITE setBarRadius)
    Q_PROPERTY(int space READ space WRITE setSpace)
    Q_PROPERTY(int lineWidth READ lineWidth WRITE setLineWidth)
    Q_PROPERTY(QColor lineColor READ lineColor WRITE setLineColor)
    Q_PROPERTY(BarStyle barStyle READ barStyle WRITE setBarStyle)
    Q_PROPERTY(bool keyMove READ keyMove WRITE setKeyMove)
    Q_PROPERTY(bool horizontal READ horizontal WRITE setHorizontal)
    Q_PROPERTY(bool flat READ flat WRITE setFlat)

public:
    enum BarStyle
    {
        BarStyle_Rect,
        BarStyle_Line_Top,
        BarStyle_Line_Right,
        BarStyle_Line_Bottom,
        BarStyle_Line_Left,
    };
    Q_ENUM(BarStyle)

    explicit SliderBar(QWidget* parent = nullptr);

    QColor bgColorStart() const { return bgColorStart_; }
    QColor bgColorEnd() const { return bgColorEnd_; }
    QColor barColorStart() const { return barColorStart_; }
    QColor barColorEnd() const { return barColorEnd_; }
    QColor textNormalColor() const { return textNormalColor_; }
    QColor textSelectColor() const { return textSelectColor_; }
    QString items() const { return items_; }
    int currentIndex() const { return currentIndex_; }
    QString currentItem() const { return currentItem_; }
    int bgRadius() const { return bgRadius_; }
    int barRadius() const { return barRadius_; }
    int space() const { return space_; }
    int lineWidth() const { return lineWidth_; }
    QColor lineColor() const { return lineColor_; }
    BarStyle barStyle() const { return barStyle_; }
    bool keyMove() const { return keyMove_; }
    bool horizontal() const { return horizontal_; }
    bool flat() const { return flat_; }

    // The highlight as last painted; it equals the current item's rectangle once the glide ends.
    QRectF barRect() const { return barRect_; }
    // The rectangle of item `index` as laid out for the present size; empty for a bad index.
    QRectF itemRect(int index);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

public slots:
    void setBgColorStart(const QColor& color);
    void setBgColorEnd(const QColor& color);
    void setBarColorStart(const QColor& color);
    void setBarColorEnd(const QColor& color);
    void setTextNormalColor(const QColor& color);
    void setTextSelectColor(const QColor& color);
    // Item texts separated by ";".
    void setItems(const QString& items);
    void setCurrentIndex(int index);
    void setCurrentItem(const QString& item);
    void setBgRadius(int radius);
    void setBarRadius(int radius);
    void setSpace(int space);
    void setLineWidth(int width);
    void setLineColor(const QColor& color);
    void setBarStyle(SliderBar::BarStyle style);
    void setKeyMove(bool keyMove);
    void setHorizontal(bool horizontal);
    // A flat bar paints background and highlight in their start colours, without gradients.
    void setFlat(bool flat);

    void clearItem();
    void moveFirst();
    void moveLast();
    void movePrevious();
    void moveNext();
    void moveTo(int index);
    void moveTo(const QString& item);
    void moveTo(const QPointF& point);

signals:
    void currentItemChanged(int index, QString item);

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private slots:
    void slide();

private:
    struct Item
    {
        QString text;
        QRectF rect;
    };

    void layoutItems();
    void drawBackground(QPainter& painter);
    void drawBar(QPainter& painter);
    void drawText(QPainter& painter);
    QRectF barAt(double position) const;

    QColor bgColorStart_{121, 121, 121};
    QColor bgColorEnd_{78, 78, 78};
    QColor barColorStart_{46, 132, 243};
    QColor barColorEnd_{39, 110, 203};
    QColor textNormalColor_{230, 230, 230};
    QColor textSelectColor_{255, 255, 255};
    QString items_;
    int currentIndex_ = -1;
    QString currentItem_;
    int bgRadius_ = 0;
    int barRadius_ = 0;
    int space_ = 25;
    int lineWidth_ = 3;
    QColor lineColor_{255, 107, 107};
    BarStyle barStyle_ = BarStyle_Rect;
    bool keyMove_ = false;
    bool horizontal_ = true;
    bool flat_ = false;

    QVector<Item> itemList;
    QRectF barRect_;
    QRectF targetRect;
    // Leading edge of the bar along the bar's axis while it glides.
    double position = 0.0;
    int step = 1;
    bool forward = true;
    QTimer* timer;
};
