#pragma once

#include "engines/CropEngine.h"
#include "io/ImageFile.h"
#include "model/CutoutCache.h"
#include "model/Panels.h"
#include "model/SavePlan.h"
#include "model/Settings.h"
#include "model/VectorSettings.h"
#include "vectorize/VectorTrace.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QSet>
#include <QUuid>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace cutlark {

/// The state of one window: the queue, the active item, the 43 live settings, the processed result,
/// the status texts and the bookkeeping of background work. Lives on the main thread; every write of
/// an observable field emits `changed`, also when the value is the same, and every write of a setting
/// runs its change hook, which decides whether the image is rebuilt.
class CropModel : public QObject {
    Q_OBJECT

public:
    using Settings = cutlark::Settings;

    /// One queued image.
    struct Item {
        QUuid id;                  ///< identity, the item's key in the queue and the cutout cache
        QString path;              ///< the file; changes when a save had to change the extension
        QString type;              ///< the MIME type the file was read as; changes with `url`
        CropEngine::Buffer buffer; ///< the upright source and its pixels
        bool saved = false;        ///< set by a successful save, never cleared
        Settings settingsSnapshot; ///< the settings the item had when it was last left
        /// The source's share of the memory budget, given back when the last copy of the item goes.
        std::shared_ptr<const MemoryBudget::Hold> memory;
        /// How the file stored its pixels; what is written for the item is stored alike.
        ImageFile::Storage storage;
        /// The file's bytes as they were read, or as the last save over it wrote them: what brings
        /// the pixels back, exactly, after the item let go of them (never a re-read of a file that
        /// may have changed on disk since). Empty for an item that always keeps its pixels.
        QByteArray encoded;
        /// The picture for the queue's list (at most `kThumbnailSide` on a side), made while the
        /// pixels were at hand.
        QImage thumbnail;
        /// True while `buffer` holds the pixels. Only the active item and its neighbours in the queue
        /// are sure to; the others keep `encoded` and `thumbnail`.
        bool decoded() const { return buffer.width() > 0; }
    };

    /// The longest side of an item's thumbnail: twice the list's 68-pixel tile, for sharp screens.
    static constexpr int kThumbnailSide = 136;
    /// Items on each side of the active one that keep their pixels, so that the next and the
    /// previous item show at once.
    static constexpr int kDecodedNeighbours = 1;
    /// Files up to this size are kept in memory as read, and their items may let go of their
    /// pixels; a bigger file's item keeps its pixels.
    static constexpr qint64 kMaxKeptFileBytes = qint64(512) << 20;

    /// Every observable field, for change notifications.
    enum class Field {
        items,
        activeID,
        syncSettingsAcrossQueue,
        activeContentRect,
        processedImage,
        errorMessage,
        saveConfirmation,
        noticeMessage,
        saving,
        collageRects,
#define CUTLARK_FIELD_ENUM(Type, name, Name, def, ...) name,
        CUTLARK_SETTINGS(CUTLARK_FIELD_ENUM)
#undef CUTLARK_FIELD_ENUM
            visionComputing,
        vectorTrace,
        vectorColorTrace,
        vectorPreview,
        isVectorizing,
        vectorTooDetailed,
    };
    Q_ENUM(Field)

    using Insets = CropEngine::Insets;

    explicit CropModel(QObject* parent = nullptr);
    ~CropModel() override;

    /// What computes subject cutouts: by default the subject network. Tests put a fake in its place.
    struct CutoutService {
        std::function<bool()> available; ///< whether subject mode is offered
        /// Blocking; runs off the main thread, with the network chosen when it was asked for.
        std::function<std::optional<QImage>(const QImage&, const SubjectNetwork&)> compute;
        /// Why cutouts can't be had (the network missing or damaged), empty when nothing is wrong.
        std::function<QString()> problem;
        /// Loads the network ahead of its first cutout, without blocking the caller; may be empty.
        std::function<void()> prepare;
        /// Makes `available` and `problem` speak of this network from now on; may be empty.
        std::function<void(const SubjectNetwork&)> choose;
    };
    void setCutoutService(CutoutService service) {
        m_cutoutService = std::move(service);
    }
    /// The network subject mode runs (the default choice: the installed one). Choosing another cuts
    /// the active item out again with it; the others are cut out again when they are shown.
    void setSubjectNetwork(const SubjectNetwork& network);
    /// The network at `onnxPath` with its descriptor, chosen; false with the error message set
    /// (naming the file and what is wrong) when the descriptor isn't one.
    bool chooseSubjectNetwork(const QString& onnxPath);
    const SubjectNetwork& subjectNetwork() const {
        return m_cutouts.network();
    }
    /// The active item's cutout as the network gave it (unturned, before any touch-up); null when
    /// there is none (not subject mode, not computed yet, or no subject found).
    QImage activeCutout() const {
        return m_activeID ? m_cutouts.cutout(*m_activeID) : QImage();
    }
    /// Compute cutouts and traces on the calling thread, inside the call that asks for them (the
    /// command line, which has no event loop to bring results back).
    void setSynchronousWork(bool on) {
        m_synchronousWork = on;
    }
    /// Whether activating an item looks for a collage in it (on by default: the window offers the
    /// split). The command line's `process` never splits, so it saves the look.
    void setDetectsCollages(bool on) {
        m_detectsCollages = on;
    }
    /// While on, builds stop before the resize (everything else as always, the size before the
    /// resize included). The command line turns it on while it applies its settings and the sizes
    /// that follow them, which each build anew, and off for the one build whose resize counts.
    void setDefersResize(bool on) {
        m_defersResize = on;
    }
    /// Whether opening and saving make each item's thumbnail (on by default: the window's queue
    /// shows them). The command line shows none, so it saves the scaling.
    void setMakesThumbnails(bool on) {
        m_makesThumbnails = on;
    }
    /// How opening decodes: by default each picture is admitted to the memory budget on its own; the
    /// command line, which takes the budget for a whole job first, turns that off.
    void setLoadOptions(const ImageFile::LoadOptions& options) {
        m_loadOptions = options;
    }
    /// What decodes a file for opening: `ImageFile::load` unless a test puts its own in place.
    /// Called on threads of opening's own.
    using Decoder =
        std::function<std::optional<ImageFile::Loaded>(const QString&, const ImageFile::LoadOptions&)>;
    void setDecoder(Decoder decoder) {
        m_decoder = std::move(decoder);
    }

    using VectorJob = cutlark::VectorJob;
    using VectorResult = cutlark::VectorResult;
    using VectorTracer = std::function<VectorResult(const VectorJob&)>;
    /// What traces: `VectorSettings::trace` unless a test puts its own in place.
    void setVectorTracer(VectorTracer tracer) {
        m_vectorTracer = std::move(tracer);
    }
    /// Where copied SVG goes; not owned. Without one the system clipboard is used, when there is one.
    void setClipboard(class Clipboard* clipboard) {
        m_clipboard = clipboard;
    }

    /// The choosers used by `openPanel`, `chooseBackgroundImage`, `saveAsNewFile` and the like.
    /// Not owned; without one every panel counts as cancelled.
    void setPanels(Panels* panels) {
        m_panels = panels;
    }
    Panels* panels() const {
        return m_panels;
    }

    // --- stored fields ---

    const std::vector<Item>& items() const {
        return m_items;
    }
    std::optional<QUuid> activeID() const {
        return m_activeID;
    }
    bool syncSettingsAcrossQueue() const {
        return m_syncSettingsAcrossQueue;
    }
    void setSyncSettingsAcrossQueue(bool on);
    std::optional<QRectF> activeContentRect() const {
        return m_activeContentRect;
    }
    /// The result of the pipeline for the active item; null when there is none.
    const QImage& processedImage() const {
        return m_processedImage;
    }
    /// Why the last `open` couldn't open a file, when there is more to say than that it isn't a
    /// picture (a picture out of all proportion to its file): “name” and the reason; else empty.
    const QString& openRefusal() const {
        return m_openRefusal;
    }
    /// The stages the last build was asked for and couldn't do for want of memory ("the resize to
    /// 100000 × 100000"): the picture went on without them.
    const QStringList& failedStages() const {
        return m_failedStages;
    }
    std::optional<QString> errorMessage() const {
        return m_errorMessage;
    }
    std::optional<QString> saveConfirmation() const {
        return m_saveConfirmation;
    }
    std::optional<QString> noticeMessage() const {
        return m_noticeMessage;
    }
    /// What a save asked for is doing while it hasn't ended: waiting for the subject cutout (or the
    /// trace) of the picture it will write, or writing; absent when no save is under way.
    std::optional<QString> savingMessage() const;
    const QList<QRectF>& collageRects() const {
        return m_collageRects;
    }

    // The 43 settings: a getter and a setter each. Every write notifies and runs the field's hook.
#define CUTLARK_ACCESSORS(Type, name, Name, def, ...)                                                        \
    const Type& name() const {                                                                               \
        return m_settings.name;                                                                              \
    }                                                                                                        \
    void set##Name(const Type& value);
    CUTLARK_SETTINGS(CUTLARK_ACCESSORS)
#undef CUTLARK_ACCESSORS

    /// Writes the field called `name` with its value in `from`, through its setter (so with its hook).
    /// False for an unknown name.
    bool writeSetting(const QString& name, const Settings& from);

    const QHash<QUuid, QImage>& visionCache() const {
        return m_cutouts.cutouts();
    }
    const QSet<QUuid>& visionAttempted() const {
        return m_cutouts.attemptedItems();
    }
    const QSet<QUuid>& visionComputing() const {
        return m_cutouts.computingItems();
    }
    QSizeF preResizeSize() const {
        return m_preResizeSize;
    }
    const std::optional<VectorTrace>& vectorTrace() const {
        return m_vectorTrace;
    }
    const std::optional<VectorColorTrace>& vectorColorTrace() const {
        return m_vectorColorTrace;
    }
    const QImage& vectorPreview() const {
        return m_vectorPreview;
    }
    bool isVectorizing() const {
        return m_isVectorizing;
    }
    bool vectorTooDetailed() const {
        return m_vectorTooDetailed;
    }
    bool isApplyingSettingsSnapshot() const {
        return m_isApplyingSettingsSnapshot;
    }

    // --- derived values ---

    const Item* active() const;
    /// 1-based place of the active item, absent without one.
    std::optional<qsizetype> activePosition() const;
    bool allSaved() const;
    Insets paddingInsets() const;
    std::optional<QSizeF> resizeTargetSize(const QSizeF& size) const;
    bool willTrim() const;
    bool producesTransparency() const;
    bool backgroundIsOpaque() const;
    bool wantsVision() const;
    /// Whether subject mode is offered at all: the subject network is present.
    bool subjectModeOffered() const {
        return m_cutoutService.available && m_cutoutService.available();
    }
    /// The active source turned and mirrored as the settings say: what the manual crop is drawn on.
    /// Null without an active item.
    QImage cropSourceImage() const;
    /// Tells one image from another for the preview's reveal: the active id, "#", the buffer's width,
    /// "x", its height. No setting changes it.
    QString revealKey() const;
    bool isDetectingSubject() const;
    bool subjectNotFound() const;

    // --- queue and settings ---

    void select(const QUuid& id);
    void remove(const QUuid& id);
    void setManualCrop(const QRectF& rect);
    void flipHorizontal();
    void flipVertical();
    Settings snapshotCurrentSettings() const;
    void applySettings(const Settings& settings);
    /// The active settings written as a preset `cutlark-cli --preset` reads; false with the error
    /// message set when the file can't be written.
    bool exportSettings(const QString& path);
    /// A preset read into the active item's settings (every item's, when synced): the defaults with
    /// what it says, as the command line reads it, each written through its setter. False with the
    /// error message set (naming the file) when it isn't one; nothing changes then.
    bool importSettings(const QString& path);
    /// The same, asking the panels for the file (File ▸ Export Settings…, Import Settings…).
    void exportSettingsAs();
    void importSettingsFrom();

    // --- pipeline ---

    /// Rebuilds `processedImage` from the active item's source; does nothing while a snapshot is applied.
    void recomputeActive();
    /// While on (a slider is held), a rebuild of a picture much bigger than a view is a draft: made
    /// from the source shrunk to `kDraftLongSide` on its long side with every length in pixels
    /// shrunk alike, which looks the same at the view's size. Off builds the picture in full again,
    /// byte for byte what a build without drafts gives; saves and traces never take a draft.
    void setDraft(bool on);
    bool processedIsDraft() const {
        return m_processedIsDraft;
    }
    /// The result's size: `processedImage`'s, or for a draft the size the full build will have, to a
    /// pixel or so.
    QSize resultSize() const;
    static constexpr int kDraftLongSide = 1280;

    // --- opening ---

    void open(const QStringList& paths);
    void openPanel();
    void chooseBackgroundImage();
    void clearBackgroundImage();
    /// Each folder replaced by its direct children of an accepted type (by name), in listing order;
    /// anything else passed on untested.
    static QStringList expandingFolders(const QStringList& paths);
    /// True when the file name's extension names one of the accepted types. Never reads the file.
    static bool passesTypeTest(const QString& path);

    // --- saving ---

    /// Saves run in two steps: a save asked for while the active picture's subject is being cut out
    /// waits for the cutout, and the encoding and writing run off the main thread. The saved mark,
    /// the confirmation and the queue's advance come when the file is really written.
    void saveOverOriginal();
    void saveAsNewFile();
    /// The type a save of the active result writes by the save rules, and whether transparency
    /// forced PNG.
    SavePlan::Choice saveTypeChoice(const Item& item) const;
    /// The name `saveAsNewFile` proposes for the active item: stem, "-out.", extension.
    QString proposedNewFileName(const Item& item) const;

    // --- collage, subject, vector ---

    /// Writes each piece of the active collage into a folder the user chooses, as base-p.ext, takes the
    /// collage out of the queue and opens the pieces.
    void splitCollage();
    /// The name of the piece at 1-based `position` of `item`'s collage: "<stem>-<position>.<ext>",
    /// or with `number` from 2 "<stem>-<position>-<number>.<ext>" (a name already taken).
    static QString splitPieceName(const Item& item, int position, int number = 1);
    /// Whether a split writes over pieces that exist already instead of taking the next free number
    /// (off: the window never writes over a file unasked; the command line's --overwrite turns it on).
    void setSplitReplaces(bool on) {
        m_splitReplaces = on;
    }
    bool hasVectorOutput() const;
    /// The preview when tracing is on and one exists, else the processed image.
    QImage vectorDisplayImage() const;
    /// The SVG of the stored trace, in the style of the moment; absent without a trace for the mode.
    std::optional<QString> currentSVG() const;
    void exportSVG();
    void copySVG();
    /// The name a document made from `sourcePath` is proposed under: the source's name with
    /// `extension` in place of its own ("Poster.final.png" → "Poster.final.svg", "Scan" → "Scan.svg").
    static QString proposedDocumentName(const QString& sourcePath, const QString& extension);
    /// The trace's status line, first match wins; absent when there's output (or nothing to say).
    std::optional<QString> vectorStatusText() const;

signals:
    void changed(cutlark::CropModel::Field field);

private:
    /// One file of an open, as a worker decodes it.
    struct DecodedFile {
        QString path;
        std::optional<ImageFile::Loaded> loaded;
        std::optional<CropEngine::Buffer> buffer;
        QByteArray encoded;
        QImage thumbnail;
        QString refusal; ///< why the loader refused the file, when it says more than "can't open"
    };
    /// Brings the pixels of `item` back from its bytes; false when it has neither pixels nor bytes
    /// or they don't decode (the budget is full).
    bool restorePixels(Item& item);
    /// `message` with the first refusal of the open that made it, when there was one.
    QString withRefusal(const QString& message) const;
    /// The active item decoded at once, its neighbours soon (on the thread pool, or at once in
    /// synchronous mode), every other item's pixels let go of where its bytes can bring them back.
    void settleDecoded();
    void prefetchPixels(const Item& item);
    void finishPrefetch(const QUuid& id, const QByteArray& encoded, std::optional<ImageFile::Loaded> loaded,
                        std::optional<CropEngine::Buffer> buffer);
    static QImage thumbnailOf(const QImage& image);
    void openNow(const QStringList& paths);
    /// Decodes every candidate on threads of its own, never on the calling thread, reporting
    /// progress; false when the user cancelled, which stops the waiting at once (decodes already
    /// running finish on their own and are dropped).
    bool decodeAll(std::vector<DecodedFile>& candidates);
    /// Makes `id` the active item: the item being left keeps its settings, the new one brings its
    /// own (unless they are synced), and the picture is rebuilt and looked at for a collage.
    void activate(std::optional<QUuid> id);
    void captureSettingsBeforeSwitch();
    void restoreSettingsAfterSwitch();
    void seedResizePixels();
    void linkResizeHeightToWidth();
    void linkResizeWidthToHeight();
    void detectCollage();
    void autoPickRemovalMode();
    void invalidateVision(const QUuid& id);
    void ensureVisionCutout();
    /// The default service's `prepare`: the network loads and warms up on the thread pool.
    static void prepareSubjectNetwork();
    /// The default service's `problem`: the network's, else the runtime's.
    static QString subjectNetworkProblem();
    void updateVector();
    /// Runs the save panel for a document and writes it; the bytes, the source file (for the proposed
    /// name), the extension and the MIME type.
    void writeVector(const QByteArray& bytes, const QString& sourcePath, const QString& extension,
                     const QString& type);
    QImage buildProcessed(const Item& item);
    /// The draft of `item` while drafts are on and it is big enough to gain from one.
    std::optional<QImage> buildDraft(const Item& item);
    void advanceToNextUnsaved(const QUuid& after);
    /// The active item when there is a result to save, else null with "Nothing to save." said.
    const Item* itemToSave();
    /// A save of `id` has written `written`: said, and the queue moves on when `id` is still active.
    void finishSave(const QUuid& id, const QString& written);
    /// When the active picture isn't final yet (its subject being cut out, or for a trace being
    /// traced), `action` is kept to run once it is, and true is returned.
    bool waitsUntilFinal(void (CropModel::*action)(), bool needsTrace);
    /// Runs the save that waits, once what it waits for has come (or drops it when its item is
    /// no longer the active one).
    void resumeWaitingSave();
    /// The same from the event loop (at once in synchronous mode): never inside the work that ended.
    void resumeWaitingSaveSoon();
    struct SaveJob;
    /// Encodes and writes `job` off the main thread (at once in synchronous mode), then `finishWrite`.
    void startWrite(std::unique_ptr<SaveJob> job);
    void finishWrite(SaveJob& job);
    void runHook(Field field, bool wasOn);
    void notify(Field field) {
        emit changed(field);
    }
    Item* findItem(const QUuid& id);
    QString skipMessage(int count) const;
    void finishCutout(const QUuid& id, const SubjectNetwork& network, const std::optional<QImage>& cutout);
    void runVectorPass();
    void finishVectorPass(const VectorJob& job, const VectorResult& result);
    void stopVectorWorker();

    void setActiveID(std::optional<QUuid> id);
    void setActiveContentRect(std::optional<QRectF> rect);
    void setProcessedImage(const QImage& image);
    void setErrorMessage(std::optional<QString> text);
    void setSaveConfirmation(std::optional<QString> text);
    void setNoticeMessage(std::optional<QString> text);
    void setCollageRects(const QList<QRectF>& rects);

    void setVectorTrace(std::optional<VectorTrace> trace);
    void setVectorColorTrace(std::optional<VectorColorTrace> trace);
    void setVectorPreview(const QImage& image);
    void setIsVectorizing(bool on);
    void setVectorTooDetailed(bool on);
    void itemsChanged() {
        notify(Field::items);
    }

    Panels* m_panels = nullptr;
    bool m_opening = false;
    QList<QStringList> m_pendingOpens;
    CutoutService m_cutoutService;
    bool m_synchronousWork = false;
    bool m_detectsCollages = true;
    bool m_makesThumbnails = true;
    bool m_defersResize = false;
    bool m_splitReplaces = false;
    ImageFile::LoadOptions m_loadOptions;
    Decoder m_decoder;
    VectorTracer m_vectorTracer;
    class Clipboard* m_clipboard = nullptr;

    std::vector<Item> m_items;
    std::optional<QUuid> m_activeID;
    bool m_syncSettingsAcrossQueue = false;
    std::optional<QRectF> m_activeContentRect;
    QImage m_processedImage;
    std::optional<QString> m_errorMessage;
    QString m_openRefusal;
    QStringList m_failedStages;
    std::optional<QString> m_saveConfirmation;
    std::optional<QString> m_noticeMessage;
    struct WaitingSave {
        QUuid id;
        void (CropModel::*action)();
        bool needsTrace = false;
    };
    std::optional<WaitingSave> m_waitingSave;
    /// The items being written, with the names they are written under, in the order asked.
    QList<std::pair<QUuid, QString>> m_writing;
    QList<QRectF> m_collageRects;
    Settings m_settings;
    CutoutCache m_cutouts;
    QSizeF m_preResizeSize{0, 0};
    /// The picture as it stood before the resize, and what it was made from: a rebuild that changes
    /// only the resize (a width typed, a slider dragged) starts from it.
    struct PreResize {
        QUuid item;
        qint64 source = 0; ///< cache key of the item's pixels
        qint64 cutout = 0; ///< cache key of the subject cutout used, 0 for none
        Settings settings; ///< with the resize and trace fields at their defaults
        QImage image;
        QStringList failed; ///< the stages it asked for and couldn't do
    };
    std::optional<PreResize> m_preResize;
    /// The source (and cutout) shrunk for drafts, kept while the same picture is dragged on.
    struct DraftSource {
        QUuid item;
        qint64 source = 0;
        qint64 cutout = 0;
        double scale = 1;
        QImage image;
        QImage cutoutImage;
    };
    std::optional<DraftSource> m_draftSource;
    bool m_draft = false;
    bool m_processedIsDraft = false;
    QSet<QUuid> m_prefetching;
    bool m_linkingResizeFields = false;
    std::optional<VectorTrace> m_vectorTrace;
    std::optional<VectorColorTrace> m_vectorColorTrace;
    QImage m_vectorPreview;
    bool m_isVectorizing = false;
    bool m_vectorTooDetailed = false;
    bool m_vectorNeedsTrace = false;
    bool m_vectorWorkerRunning = false;
    bool m_isApplyingSettingsSnapshot = false;
};

} // namespace cutlark
