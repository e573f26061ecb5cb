<?xml version='1.0' encoding='utf-8'?>
<TS version="2.1" language="de_DE">
<context>
    <name>BackendFailedView</name>
    <message>
        <source>Syncing has stopped</source>
        <translation>Die Synchronisierung wurde angehalten</translation>
    </message>
    <message>
        <source>The sync engine is not running.</source>
        <translation>Die Synchronisierung läuft nicht.</translation>
    </message>
    <message>
        <source>Restart backend</source>
        <translation>Backend neu starten</translation>
    </message>
</context>
<context>
    <name>CheckForUpdatesView</name>
    <message>
        <source>Check for Updates…</source>
        <translation>Nach Updates suchen…</translation>
    </message>
    <message>
        <source>Download</source>
        <translation>Herunterladen</translation>
    </message>
    <message>
        <source>Download the new version</source>
        <translation>Die neue Version herunterladen</translation>
    </message>
    <message>
        <source>Show</source>
        <translation>Zeigen</translation>
    </message>
    <message>
        <source>Show the downloaded update in its folder</source>
        <translation>Das heruntergeladene Update in seinem Ordner zeigen</translation>
    </message>
</context>
<context>
    <name>ContentView</name>
    <message>
        <source>%1 folder</source>
        <translation>%1 Ordner</translation>
    </message>
    <message>
        <source>%1 folders</source>
        <translation>%1 Ordner</translation>
    </message>
    <message>
        <source>Loading...</source>
        <translation>Wird geladen...</translation>
    </message>
    <message>
        <source>No Folders Syncing</source>
        <translation>Keine Ordner werden synchronisiert</translation>
    </message>
    <message>
        <source>Add folders to sync from the Settings tab</source>
        <translation>Ordner zum Synchronisieren im Tab „Einstellungen“ hinzufügen</translation>
    </message>
    <message>
        <source>Please wait while we load your sync status</source>
        <translation>Bitte warten, der Synchronisierungsstatus wird geladen</translation>
    </message>
</context>
<context>
    <name>FolderRow</name>
    <message>
        <source>This folder is synced with iCloud</source>
        <translation>Dieser Ordner wird mit iCloud synchronisiert</translation>
    </message>
    <message>
        <source>Open folder</source>
        <translation>Ordner öffnen</translation>
    </message>
    <message>
        <source>Stop watching this folder</source>
        <translation>Diesen Ordner nicht mehr beobachten</translation>
    </message>
</context>
<context>
    <name>GroupCard</name>
    <message>
        <source>Group #%1</source>
        <translation>Gruppe #%1</translation>
    </message>
    <message>
        <source>Retention</source>
        <translation>Aufbewahrung</translation>
    </message>
    <message>
        <source>Configure retention settings</source>
        <translation>Aufbewahrung einstellen</translation>
    </message>
    <message>
        <source>Photos</source>
        <translation>Fotos</translation>
    </message>
    <message>
        <source>Add Photos library</source>
        <translation>Fotos-Mediathek hinzufügen</translation>
    </message>
    <message>
        <source>Folder</source>
        <translation>Ordner</translation>
    </message>
    <message>
        <source>Add folder</source>
        <translation>Ordner hinzufügen</translation>
    </message>
    <message>
        <source>No folders added yet</source>
        <translation>Noch keine Ordner hinzugefügt</translation>
    </message>
    <message>
        <source>Click the buttons above to add a Photos library or folder to sync</source>
        <translation>Mit den Schaltflächen oben eine Fotos-Mediathek oder einen Ordner zum Synchronisieren hinzufügen</translation>
    </message>
</context>
<context>
    <name>LoginView</name>
    <message>
        <source>Secure file sync</source>
        <translation>Sichere Dateisynchronisierung</translation>
    </message>
    <message>
        <source>Email</source>
        <translation>E-Mail</translation>
    </message>
    <message>
        <source>you@tarnwick.app</source>
        <translation>du@tarnwick.app</translation>
    </message>
    <message>
        <source>Send 6-digit code via email</source>
        <translation>6-stelligen Code per E-Mail senden</translation>
    </message>
    <message>
        <source>6-Digit Code</source>
        <translation>6-stelliger Code</translation>
    </message>
    <message>
        <source>Enter code</source>
        <translation>Code eingeben</translation>
    </message>
    <message>
        <source>Login</source>
        <translation>Anmelden</translation>
    </message>
    <message>
        <source>Quit</source>
        <translation>Beenden</translation>
    </message>
    <message>
        <source>Quit (Ctrl+Q)</source>
        <translation>Beenden (Strg+Q)</translation>
    </message>
</context>
<context>
    <name>MenuBarView</name>
    <message>
        <source>Status</source>
        <translation>Status</translation>
    </message>
    <message>
        <source>Settings</source>
        <translation>Einstellungen</translation>
    </message>
    <message>
        <source>The settings could not be shown.</source>
        <translation>Die Einstellungen konnten nicht angezeigt werden.</translation>
    </message>
    <message>
        <source>Launch at login</source>
        <translation>Beim Anmelden starten</translation>
    </message>
    <message>
        <source>Check for Updates</source>
        <translation>Nach Updates suchen</translation>
    </message>
    <message>
        <source>Check for app updates</source>
        <translation>Nach App-Updates suchen</translation>
    </message>
    <message>
        <source>Logout</source>
        <translation>Abmelden</translation>
    </message>
    <message>
        <source>Logout and quit</source>
        <translation>Abmelden und beenden</translation>
    </message>
    <message>
        <source>Quit</source>
        <translation>Beenden</translation>
    </message>
    <message>
        <source>Software Update</source>
        <translation>Softwareaktualisierung</translation>
    </message>
</context>
<context>
    <name>PhotoLibraryInstructionsView</name>
    <message>
        <source>Open Photos App</source>
        <translation>Fotos-App öffnen</translation>
    </message>
    <message>
        <source>Launch the Photos application on your Mac</source>
        <translation>Die Fotos-App auf deinem Mac starten</translation>
    </message>
    <message>
        <source>Open Settings</source>
        <translation>Einstellungen öffnen</translation>
    </message>
    <message>
        <source>Click Photos in the menu bar, then select Settings...</source>
        <translation>In der Menüleiste auf „Fotos“ klicken und „Einstellungen...“ wählen</translation>
    </message>
    <message>
        <source>Enable Download Originals</source>
        <translation>„Originale laden“ einschalten</translation>
    </message>
    <message>
        <source>In the iCloud tab, select "Download Originals to this Mac"</source>
        <translation>Im Tab „iCloud“ die Option „Originale auf diesen Mac laden“ wählen</translation>
    </message>
    <message>
        <source>Wait for Download</source>
        <translation>Auf das Laden warten</translation>
    </message>
    <message>
        <source>Wait for all photos and videos to finish downloading. You can check progress at the bottom of the Photos app window.</source>
        <translation>Warten, bis alle Fotos und Videos geladen sind. Den Fortschritt zeigt das Fenster der Fotos-App unten an.</translation>
    </message>
    <message>
        <source>Verify Completion</source>
        <translation>Vollständigkeit prüfen</translation>
    </message>
    <message>
        <source>Ensure the status shows all items are downloaded before continuing</source>
        <translation>Vor dem Fortfahren sicherstellen, dass der Status alle Objekte als geladen zeigt</translation>
    </message>
    <message>
        <source>Before Adding Photos Library</source>
        <translation>Vor dem Hinzufügen der Fotos-Mediathek</translation>
    </message>
    <message>
        <source>Important Setup Required</source>
        <translation>Wichtige Vorbereitung nötig</translation>
    </message>
    <message>
        <source>You must download all original photos to your Mac before syncing your Photos library.</source>
        <translation>Vor dem Synchronisieren der Fotos-Mediathek müssen alle Originalfotos auf deinen Mac geladen sein.</translation>
    </message>
    <message>
        <source>Why is this necessary?</source>
        <translation>Warum ist das nötig?</translation>
    </message>
    <message>
        <source>tarnwick needs access to the original, full-resolution files to sync them properly. If originals are not downloaded, only low-resolution previews will be synced.</source>
        <translation>tarnwick braucht die Originaldateien in voller Auflösung, um sie richtig zu synchronisieren. Sind die Originale nicht geladen, werden nur Vorschauen in niedriger Auflösung synchronisiert.</translation>
    </message>
    <message>
        <source>Back</source>
        <translation>Zurück</translation>
    </message>
    <message>
        <source>I Have Downloaded Originals</source>
        <translation>Originale sind geladen</translation>
    </message>
</context>
<context>
    <name>RetentionSettingsView</name>
    <message>
        <source>Back</source>
        <translation>Zurück</translation>
    </message>
    <message>
        <source>Retention Settings: %1</source>
        <translation>Aufbewahrung: %1</translation>
    </message>
    <message>
        <source>Automatic Cleanup</source>
        <translation>Automatisches Aufräumen</translation>
    </message>
    <message>
        <source>Delete files older than</source>
        <translation>Dateien löschen, die älter sind als</translation>
    </message>
    <message>
        <source>days</source>
        <translation>Tage</translation>
    </message>
    <message>
        <source>Last Retention Run</source>
        <translation>Letztes Aufräumen</translation>
    </message>
    <message>
        <source>No retention run yet</source>
        <translation>Noch nie aufgeräumt</translation>
    </message>
    <message>
        <source>Last run:</source>
        <translation>Zuletzt:</translation>
    </message>
    <message>
        <source>Files removed:</source>
        <translation>Entfernte Dateien:</translation>
    </message>
    <message>
        <source>Space freed:</source>
        <translation>Freigegebener Speicher:</translation>
    </message>
    <message>
        <source>Initial cleanup:</source>
        <translation>Erstes Aufräumen:</translation>
    </message>
    <message>
        <source>Orphans removed:</source>
        <translation>Entfernte verwaiste Dateien:</translation>
    </message>
    <message>
        <source>One-time scan when retention was first enabled</source>
        <translation>Einmalige Prüfung beim ersten Einschalten der Aufbewahrung</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Abbrechen</translation>
    </message>
    <message>
        <source>Saving...</source>
        <translation>Wird gesichert...</translation>
    </message>
    <message>
        <source>Save</source>
        <translation>Sichern</translation>
    </message>
</context>
<context>
    <name>SettingsView</name>
    <message>
        <source>The change was not made</source>
        <translation>Die Änderung wurde nicht vorgenommen</translation>
    </message>
    <message>
        <source>Loading...</source>
        <translation>Wird geladen...</translation>
    </message>
    <message>
        <source>No Groups Found</source>
        <translation>Keine Gruppen gefunden</translation>
    </message>
    <message>
        <source>Please wait while we load your groups</source>
        <translation>Bitte warten, deine Gruppen werden geladen</translation>
    </message>
    <message>
        <source>Log in to the tarnwick website and create a group to get started</source>
        <translation>Melde dich auf der tarnwick-Website an und lege eine Gruppe an, um zu beginnen</translation>
    </message>
    <message>
        <source>Sync Folders</source>
        <translation>Synchronisierte Ordner</translation>
    </message>
    <message>
        <source>iCloud Sync Detected</source>
        <translation>iCloud-Synchronisierung erkannt</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Abbrechen</translation>
    </message>
    <message>
        <source>Add Anyway</source>
        <translation>Trotzdem hinzufügen</translation>
    </message>
</context>
<context>
    <name>StatusBadge</name>
    <message>
        <source>Synced</source>
        <translation>Synchronisiert</translation>
    </message>
    <message>
        <source>Syncing</source>
        <translation>Wird synchronisiert</translation>
    </message>
    <message>
        <source>Pending</source>
        <translation>Ausstehend</translation>
    </message>
</context>
<context>
    <name>SyncItemCard</name>
    <message>
        <source>in %1</source>
        <translation>in %1</translation>
    </message>
    <message>
        <source>Group: %1</source>
        <translation>Gruppe: %1</translation>
    </message>
    <message>
        <source>Error: %1</source>
        <translation>Fehler: %1</translation>
    </message>
    <message>
        <source>Open folder</source>
        <translation>Ordner öffnen</translation>
    </message>
    <message>
        <source>Open in %1</source>
        <translation>In %1 öffnen</translation>
    </message>
</context>
<context>
    <name>UpdaterSettingsView</name>
    <message>
        <source>Automatically check for updates</source>
        <translation>Automatisch nach Updates suchen</translation>
    </message>
    <message>
        <source>Automatically download updates</source>
        <translation>Updates automatisch laden</translation>
    </message>
    <message>
        <source>Last checked: %1</source>
        <translation>Zuletzt gesucht: %1</translation>
    </message>
</context>
<context>
    <name>tarnwick::ui::Notifier</name>
    <message>
        <source>Sign in to Tarnwick</source>
        <translation>Bei Tarnwick anmelden</translation>
    </message>
    <message>
        <source>Your folders are not syncing until you sign in. Open Tarnwick from its tray icon to sign in.</source>
        <translation>Deine Ordner werden erst nach der Anmeldung synchronisiert. Öffne Tarnwick über das Symbol in der Leiste, um dich anzumelden.</translation>
    </message>
    <message>
        <source>Tarnwick has stopped syncing</source>
        <translation>Tarnwick synchronisiert nicht mehr</translation>
    </message>
    <message>
        <source>The sync engine stopped.</source>
        <translation>Die Synchronisierung wurde beendet.</translation>
    </message>
    <message>
        <source>%1 Open Tarnwick and choose "Restart backend" to try again.</source>
        <translation>%1 Öffne Tarnwick und wähle „Backend neu starten“, um es erneut zu versuchen.</translation>
    </message>
</context>
<context>
    <name>tarnwick::ui::RetentionEditor</name>
    <message>
        <source>Retention Active</source>
        <translation>Aufbewahrung aktiv</translation>
    </message>
    <message>
        <source>Full Retention</source>
        <translation>Alles aufbewahren</translation>
    </message>
    <message>
        <source>All deleted files are kept forever (0 = disabled)</source>
        <translation>Alle gelöschten Dateien werden für immer aufbewahrt (0 = aus)</translation>
    </message>
    <message>
        <source>Deleted files older than %1 days will be permanently removed</source>
        <translation>Gelöschte Dateien, die älter als %1 Tage sind, werden endgültig entfernt</translation>
    </message>
</context>
<context>
    <name>tarnwick::ui::SettingsController</name>
    <message>
        <source>%1 group</source>
        <translation>%1 Gruppe</translation>
    </message>
    <message>
        <source>%1 groups</source>
        <translation>%1 Gruppen</translation>
    </message>
</context>
<context>
    <name>tarnwick::ui::TrayController</name>
    <message>
        <source>Restart backend</source>
        <translation>Backend neu starten</translation>
    </message>
    <message>
        <source>Open Tarnwick</source>
        <translation>Tarnwick öffnen</translation>
    </message>
    <message>
        <source>Show Status</source>
        <translation>Status zeigen</translation>
    </message>
    <message>
        <source>Show Settings</source>
        <translation>Einstellungen zeigen</translation>
    </message>
    <message>
        <source>Quit</source>
        <translation>Beenden</translation>
    </message>
    <message>
        <source>Backend stopped</source>
        <translation>Backend angehalten</translation>
    </message>
    <message>
        <source>Backend stopped: %1</source>
        <translation>Backend angehalten: %1</translation>
    </message>
    <message>
        <source>Not signed in</source>
        <translation>Nicht angemeldet</translation>
    </message>
    <message>
        <source>Signed in</source>
        <translation>Angemeldet</translation>
    </message>
    <message>
        <source>Signed in as %1</source>
        <translation>Angemeldet als %1</translation>
    </message>
    <message>
        <source>loading folders</source>
        <translation>Ordner werden geladen</translation>
    </message>
    <message>
        <source>no folders</source>
        <translation>keine Ordner</translation>
    </message>
    <message>
        <source>%1 folder</source>
        <translation>%1 Ordner</translation>
    </message>
    <message>
        <source>%1 folders</source>
        <translation>%1 Ordner</translation>
    </message>
    <message>
        <source>%1 syncing</source>
        <translation>%1 werden synchronisiert</translation>
    </message>
    <message>
        <source>%1 with an error</source>
        <translation>%1 mit Fehler</translation>
    </message>
    <message>
        <source>%1 with errors</source>
        <translation>%1 mit Fehlern</translation>
    </message>
</context>
</TS>