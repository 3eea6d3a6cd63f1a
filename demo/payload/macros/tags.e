// Tag-file maintenance: rebuilds the tag files of the installation.
_command void rebuild_tags()
{
    _str dir = get_env("CORVMISC") :+ "tagfiles/";
    make_tags(dir :+ "*.h", dir :+ "cpp.vtg");
    make_tags(dir :+ "*.java", dir :+ "java.vtg");
}
