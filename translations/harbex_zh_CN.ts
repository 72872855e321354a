<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
<context>
    <name>harbex::ContentView</name>
    <message>
        <source>Add Folder</source>
        <extracomment>Button: adds a folder to those that Harbex watches.</extracomment>
        <translation>添加文件夹</translation>
    </message>
    <message>
        <source>Folders</source>
        <extracomment>Heading of the list of the folders that Harbex watches.</extracomment>
        <translation>文件夹</translation>
    </message>
    <message>
        <source>Select a folder from the sidebar</source>
        <extracomment>In place of the rules while no folder is selected.</extracomment>
        <translation>请从侧边栏中选择文件夹</translation>
    </message>
    <message>
        <source>Add Rule</source>
        <extracomment>Button: adds a rule to the selected folder.</extracomment>
        <translation>添加规则</translation>
    </message>
    <message>
        <source>Rules</source>
        <extracomment>Heading of the list of the rules of a folder.</extracomment>
        <translation>规则</translation>
    </message>
</context>
<context>
    <name>harbex::DirectorySelector</name>
    <message>
        <source>Select destination...</source>
        <extracomment>Read by screen readers, and shown in place of the destination of a rule that has none yet.</extracomment>
        <translation>选择目标位置...</translation>
    </message>
</context>
<context>
    <name>harbex::FolderDialog</name>
    <message>
        <source>Select Focus Folder</source>
        <extracomment>Title of the dialog that asks for a folder, and the button that accepts it. The folder is one to watch or the destination of a rule.</extracomment>
        <translation>选择文件夹</translation>
    </message>
</context>
<context>
    <name>harbex::FolderList</name>
    <message>
        <source>Folders</source>
        <extracomment>Read by screen readers: the list of the folders that Harbex watches.</extracomment>
        <translation>文件夹</translation>
    </message>
    <message>
        <source>Delete</source>
        <extracomment>Menu entry: Harbex no longer watches the folder. The folder itself stays on the disk.</extracomment>
        <translation>移除</translation>
    </message>
</context>
<context>
    <name>harbex::MainWindow</name>
    <message>
        <source>Harbex</source>
        <extracomment>The name of the program. It stays in Latin letters.</extracomment>
        <translation>Harbex</translation>
    </message>
</context>
<context>
    <name>harbex::RuleRow</name>
    <message>
        <source>Name</source>
        <extracomment>What a rule compares, at the start of its row: [Name] [contains] [value] move to [folder].</extracomment>
        <translation>名称</translation>
    </message>
    <message>
        <source>Extension</source>
        <extracomment>What a rule compares, at the start of its row: [Extension] [is] [pdf] move to [folder].</extracomment>
        <translation>扩展名</translation>
    </message>
    <message>
        <source>Kind</source>
        <extracomment>What a rule compares, at the start of its row: [Kind] [Image] move to [folder].</extracomment>
        <translation>类型</translation>
    </message>
    <message>
        <source>contains</source>
        <extracomment>Between two controls of a row, and part of its sentence: [Name] [contains] [value] move to [folder].</extracomment>
        <translation>包含</translation>
    </message>
    <message>
        <source>is</source>
        <extracomment>Between two controls of a row, and part of its sentence: [Extension] [is] [pdf] move to [folder].</extracomment>
        <translation>是</translation>
    </message>
    <message>
        <source>Image</source>
        <extracomment>A kind of file: [Kind] [Image] move to [folder].</extracomment>
        <translation>图像</translation>
    </message>
    <message>
        <source>Video</source>
        <extracomment>A kind of file: [Kind] [Video] move to [folder].</extracomment>
        <translation>视频</translation>
    </message>
    <message>
        <source>Document</source>
        <extracomment>A kind of file: [Kind] [Document] move to [folder].</extracomment>
        <translation>文档</translation>
    </message>
    <message>
        <source>Folder</source>
        <extracomment>A folder, as a kind of what a rule moves: [Kind] [Folder] move to [folder].</extracomment>
        <translation>文件夹</translation>
    </message>
    <message>
        <source>Audio</source>
        <extracomment>A kind of file: [Kind] [Audio] move to [folder].</extracomment>
        <translation>音频</translation>
    </message>
    <message>
        <source>Application</source>
        <extracomment>A program, as a kind of file: [Kind] [Application] move to [folder].</extracomment>
        <translation>应用程序</translation>
    </message>
    <message>
        <source>Field</source>
        <extracomment>Read by screen readers: the list with Name, Extension and Kind.</extracomment>
        <translation>字段</translation>
    </message>
    <message>
        <source>Operator</source>
        <extracomment>Read by screen readers: the list with &quot;contains&quot; and &quot;is&quot;.</extracomment>
        <translation>运算符</translation>
    </message>
    <message>
        <source>Default: All Files</source>
        <extracomment>Shown in the empty value field: without a value, a rule takes all files.</extracomment>
        <translation>默认：所有文件</translation>
    </message>
    <message>
        <source>Value</source>
        <extracomment>Read by screen readers: the field after &quot;contains&quot; or &quot;is&quot;.</extracomment>
        <translation>值</translation>
    </message>
    <message>
        <source>move to</source>
        <extracomment>Between two controls of a row, and part of its sentence: [Name] [contains] [value] move to [folder].</extracomment>
        <translation>移动到</translation>
    </message>
    <message>
        <source>Delete</source>
        <extracomment>Read by screen readers: the button that deletes a rule.</extracomment>
        <translation>删除</translation>
    </message>
</context>
<context>
    <name>harbex::StatusItem</name>
    <message>
        <source>Open Harbex</source>
        <extracomment>Entry of the menu in the tray. &quot;Harbex&quot; is the name of the program.</extracomment>
        <translation>打开 Harbex</translation>
    </message>
    <message>
        <source>Quit</source>
        <extracomment>Entry of the menu in the tray: ends the program.</extracomment>
        <translation>退出</translation>
    </message>
    <message>
        <source>Harbex</source>
        <extracomment>The name of the program. It stays in Latin letters.</extracomment>
        <translation>Harbex</translation>
    </message>
</context>
</TS>
